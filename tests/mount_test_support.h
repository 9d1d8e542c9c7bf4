// Helpers of the mount and stub tests (Parts 2.1 and 2.2). The mount table is process-wide, so
// every test mounts through MountFixture::Mount, and TearDown unmounts every name it mounted
// before the scratch directory goes: a storage left mounted would stay open until exit, where
// the table deliberately leaves it (Part 2.1) and LeakSanitizer would report it.
#ifndef VELFS_TESTS_MOUNT_TEST_SUPPORT_H
#define VELFS_TESTS_MOUNT_TEST_SUPPORT_H

#include <memory>
#include <string>
#include <vector>

#include "test_support.h"
#include "velfs.h"

namespace velfs::testing {

// A stub that goes back to velFSDeleteStub when the test body ends (before TearDown unmounts).
struct StubDeleter {
  void operator()(FileStub* stub) const { velFSDeleteStub(stub); }
};
using StubPtr = std::unique_ptr<FileStub, StubDeleter>;

inline StubPtr OpenStub(const std::string& path, uint32_t mode) {
  return StubPtr(velFSCreateStub(path.c_str(), mode));
}

class MountFixture : public ScratchDirTest {
 protected:
  void TearDown() override {
    for (const std::string& name : mounted_) velFSUnmountPath(name.c_str());
    mounted_.clear();
    ScratchDirTest::TearDown();
  }

  // velFSMountPath, remembering the name for TearDown (unmounting an unknown name does nothing).
  void Mount(const std::string& name, const std::string& sysPath) {
    mounted_.push_back(name);
    velFSMountPath(name.c_str(), sysPath.c_str());
  }

  // A new directory in the scratch directory; its path.
  std::string MakeDir(const std::string& name) {
    std::filesystem::create_directories(PathOf(name));
    return PathOf(name);
  }

  // The mapped system path as a string: asks for the length (size 0), then fetches it with
  // room for the terminator. "" when the path does not map.
  static std::string Map(const std::string& virtualPath) {
    const uint64_t length = velFSVelToSyspath(virtualPath.c_str(), nullptr, 0);
    std::string buffer(length + 1, '\x7f');
    EXPECT_EQ(velFSVelToSyspath(virtualPath.c_str(), buffer.data(), buffer.size()), length);
    EXPECT_EQ(buffer[length], '\0');
    buffer.resize(length);
    return buffer;
  }

  // Reads everything from the stub's current position on (chunks of 4 bytes).
  static std::string ReadAll(FileStub* stub) {
    std::string content;
    char chunk[4];
    uint64_t count;
    while ((count = stub->read(stub->file, chunk, sizeof chunk)) > 0) content.append(chunk, count);
    return content;
  }

  // Writes the whole text through the stub; the count it answers.
  static uint64_t WriteText(FileStub* stub, const std::string& text) {
    return stub->write(stub->file, text.data(), text.size());
  }

 private:
  std::vector<std::string> mounted_;
};

}  // namespace velfs::testing

#endif  // VELFS_TESTS_MOUNT_TEST_SUPPORT_H
