// Helpers of the native back-end's tests (native_*_test.cc): owning wrappers of the exported
// handles, listing helpers and a snapshot of a host directory tree for "the disk is unchanged".
#ifndef VELFS_TESTS_NATIVE_TEST_SUPPORT_H
#define VELFS_TESTS_NATIVE_TEST_SUPPORT_H

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/storage.h"
#include "handle_support.h"
#include "test_support.h"
#include "velfs.h"

namespace velfs::testing {

// A test whose scratch directory is open as a native root through the exported API.
class NativeRootTest : public ScratchDirTest {
 protected:
  void SetUp() override {
    ScratchDirTest::SetUp();
    if (HasFatalFailure()) return;
    dir_handle_.reset(velfsOpenDir(PathOf().c_str()));
    ASSERT_NE(dir_handle_, nullptr);
  }
  void TearDown() override {
    dir_handle_.reset();
    ScratchDirTest::TearDown();
  }

  DirPtr dir_handle_;  // the scratch directory as a native root
};

// Every entry below `root` (relative path → "dir" for a directory, "file:" + content for a
// file), for comparing the disk before and after an operation.
inline std::map<std::string, std::string> SnapshotTree(const std::string& root) {
  std::map<std::string, std::string> tree;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    const std::string relative = std::filesystem::relative(entry.path(), root).string();
    tree[relative] =
        entry.is_directory() ? std::string("dir") : "file:" + ReadHostFile(entry.path().string());
  }
  return tree;
}

// Number of open file descriptors of this process (entries of /proc/self/fd; the descriptor of
// the listing itself is counted every time alike).
inline int OpenDescriptorCount() {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++count;
  }
  return count;
}

// Creates an empty host file with plain POSIX calls; true on success.
inline bool TouchHostFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  if (fd < 0) return false;
  return ::close(fd) == 0;
}

inline bool IsDirectoryOnDisk(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

inline bool ExistsOnDisk(const std::string& path) {
  struct stat status;
  return ::lstat(path.c_str(), &status) == 0;
}

}  // namespace velfs::testing

#endif  // VELFS_TESTS_NATIVE_TEST_SUPPORT_H
