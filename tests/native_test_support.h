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
#include "test_support.h"
#include "velfs.h"

namespace velfs::testing {

// Owning handles. Declare a DirPtr before the FilePtr/EnumPtr made through it, so that the
// latter are closed first (Part 1.1, ownership rule 3).
struct DirCloser {
  void operator()(DirHandle* handle) const { velfsCloseDir(handle); }
};
struct FileCloser {
  void operator()(FileHandle* handle) const { velfsCloseFile(handle); }
};
struct EnumCloser {
  void operator()(EnumHandle* handle) const { velfsCloseEnum(handle); }
};
using DirPtr = std::unique_ptr<DirHandle, DirCloser>;
using FilePtr = std::unique_ptr<FileHandle, FileCloser>;
using EnumPtr = std::unique_ptr<EnumHandle, EnumCloser>;

// One entry as the enumerator reports it.
struct Listed {
  std::string name;
  std::string fullName;
  bool isDirectory = false;
  bool operator<(const Listed& other) const { return name < other.name; }
  bool operator==(const Listed& other) const {
    return name == other.name && fullName == other.fullName && isDirectory == other.isDirectory;
  }
};

// Takes ownership of a text handed out by GetName/GetFullName and frees it.
inline std::string TakeText(char* text) {
  std::string copy = text == nullptr ? std::string() : std::string(text);
  std::free(text);
  return copy;
}

// Steps `listing` to its end (from where it stands) and collects every entry in host order.
inline std::vector<Listed> ListRest(StorageEnum& listing) {
  std::vector<Listed> entries;
  while (listing.MoveNext()) {
    Listed entry;
    char* text = nullptr;
    EXPECT_TRUE(listing.GetName(&text));
    entry.name = TakeText(text);
    text = nullptr;
    EXPECT_TRUE(listing.GetFullName(&text));
    entry.fullName = TakeText(text);
    entry.isDirectory = listing.IsDirectory();
    entries.push_back(entry);
  }
  return entries;
}

inline std::vector<Listed> ListRest(EnumHandle* listing) {
  std::vector<Listed> entries;
  while (velfsMoveNext(listing)) {
    Listed entry;
    char* text = nullptr;
    EXPECT_TRUE(velfsGetName(listing, &text));
    entry.name = TakeText(text);
    text = nullptr;
    EXPECT_TRUE(velfsGetFullName(listing, &text));
    entry.fullName = TakeText(text);
    entry.isDirectory = velfsIsDirectory(listing);
    entries.push_back(entry);
  }
  return entries;
}

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
