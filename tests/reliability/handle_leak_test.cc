// Descriptors and mappings (issue 8): after every handle is closed, the process holds no
// descriptor and no mapping it did not hold before. One cycle opens, uses and closes every kind
// of handle on a host directory, an archive and a database root (through directory handles and
// full paths, an archive file that outlives its directory handle, transactions, a second handle
// on the same database), mounts and stubs, and the roots that fail to open (a file that is
// neither archive nor database, the CVE-2024-39134 regression archive, a missing directory, the
// ".zip" retry). /proc/self/fd and /proc/self/maps are compared after one cycle and after
// twenty-five more, and at no point after a cycle does anything refer to the test's files.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "reliability_support.h"
#include "test_support.h"
#include "velfs.h"
#include "zip_fixture.h"

namespace velfs::reliability {
namespace {

using velfs::testing::Deflated;
using velfs::testing::Directory;
using velfs::testing::Stored;
using velfs::testing::WriteHostFile;
using velfs::testing::WriteZip;

constexpr int kCycles = 25;

// Descriptor number -> what it refers to.
std::map<int, std::string> Descriptors() {
  std::map<int, std::string> descriptors;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    char target[PATH_MAX + 1];
    const ssize_t length = ::readlink(entry.path().c_str(), target, PATH_MAX);
    if (length < 0) continue;  // closed meanwhile
    descriptors[std::stoi(entry.path().filename().string())] =
        std::string(target, static_cast<std::size_t>(length));
  }
  return descriptors;
}

// The mappings of files in /proc/self/maps, without their addresses ("perms offset dev inode
// path"), sorted: the same mappings at other addresses compare equal. Anonymous mappings are left
// out: the library makes none of its own (its memory comes from malloc, whose leaks
// LeakSanitizer and valgrind report), and allocators, valgrind's among them, keep what they
// mapped.
std::vector<std::string> Mappings() {
  std::vector<std::string> mappings;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find('/') == std::string::npos) continue;
    mappings.push_back(line.substr(line.find(' ') + 1));
  }
  std::sort(mappings.begin(), mappings.end());
  return mappings;
}

class HandleLeakTest : public velfs::testing::ScratchDirTest {
 protected:
  void SetUp() override {
    velfs::testing::ScratchDirTest::SetUp();
    std::filesystem::create_directories(PathOf("native/docs"));
    WriteHostFile(PathOf("native/readme.txt"), "native");
    WriteHostFile(PathOf("native/docs/a.txt"), "alpha");
    ASSERT_TRUE(WriteZip(PathOf("pack.zip"),
                         {Stored("readme.txt", "stored"), Directory("docs/"),
                          Deflated("docs/long.txt", std::string(100000, 'x'))}));
    WriteHostFile(PathOf("plain.txt"), "neither an archive nor a database, long enough to probe");
    WriteHostFile(PathOf("retry"), "");  // empty: zziplib retries "retry.zip"
    ASSERT_TRUE(WriteZip(PathOf("retry.zip"), {Stored("r.txt", "r")}));
    std::filesystem::copy_file(CorpusPath("archive/cve-2024-39134-1024.zip"),
                               PathOf("overread.zip"));
  }

  static void Drain(FileHandle* file) {
    char buffer[4096];
    while (velfsRead(file, buffer, sizeof buffer) > 0) {
    }
  }
  static void Walk(EnumHandle* listing) {
    while (velfsMoveNext(listing)) {
      char* name = nullptr;
      if (velfsGetFullName(listing, &name)) std::free(name);
    }
  }

  void NativeCycle() {
    DirHandle* dir = velfsOpenDir(PathOf("native").c_str());
    ASSERT_NE(dir, nullptr);
    FileHandle* written = velfsCreateFileIndir(dir, "made/new.txt", 1);
    ASSERT_NE(written, nullptr);
    velfsWrite(written, "new", 3);
    FileHandle* read = velfsCreateFileIndir(dir, "docs/a.txt", 0);
    ASSERT_NE(read, nullptr);
    Drain(read);
    EnumHandle* listing = velfsCreateEnumIndir(dir, "docs/");
    ASSERT_NE(listing, nullptr);
    Walk(listing);
    velfsCloseEnum(listing);
    velfsCloseFile(read);
    velfsCloseFile(written);
    velfsCloseDir(dir);
    FileHandle* full = velfsCreateFile(PathOf("native/readme.txt").c_str(), 0);
    ASSERT_NE(full, nullptr);
    Drain(full);
    velfsCloseFile(full);
    EnumHandle* fullListing = velfsCreateEnum((PathOf("native") + "/").c_str());
    ASSERT_NE(fullListing, nullptr);
    Walk(fullListing);
    velfsCloseEnum(fullListing);
  }

  void ArchiveCycle() {
    DirHandle* dir = velfsOpenDir(PathOf("pack.zip").c_str());
    ASSERT_NE(dir, nullptr);
    bool exists = false;
    EXPECT_TRUE(velfsIsFileExist(dir, "docs/long.txt", &exists));
    EXPECT_TRUE(exists);
    FileHandle* member = velfsCreateFileIndir(dir, "docs/long.txt", 0);
    ASSERT_NE(member, nullptr);
    velfsSeek(member, 90000, 0);
    velfsSeek(member, 10, 0);  // backward: zziplib inflates again from the start
    EXPECT_EQ(velfsCreateFileIndir(dir, "missing.txt", 0), nullptr);
    EnumHandle* listing = velfsCreateEnumIndir(dir, "");
    ASSERT_NE(listing, nullptr);
    Walk(listing);
    velfsCloseEnum(listing);
    velfsCloseDir(dir);
    Drain(member);  // the member outlives its directory handle (Part 5.2)
    velfsCloseFile(member);
    FileHandle* full = velfsCreateFile((PathOf("pack.zip") + ":readme.txt").c_str(), 0);
    ASSERT_NE(full, nullptr);
    Drain(full);
    velfsCloseFile(full);
    EnumHandle* fullListing = velfsCreateEnum((PathOf("pack.zip") + ":docs/").c_str());
    ASSERT_NE(fullListing, nullptr);
    Walk(fullListing);
    velfsCloseEnum(fullListing);
  }

  void DatabaseCycle() {
    const std::string database = PathOf("store.db");
    DirHandle* dir = velfsOpenDir(database.c_str());
    ASSERT_NE(dir, nullptr);
    DirHandle* second = velfsOpenDir((database + ":").c_str());
    ASSERT_NE(second, nullptr);
    ASSERT_TRUE(velfsBeginTrans(dir));
    FileHandle* file = velfsCreateFileIndir(dir, "docs/a.txt", 1);
    ASSERT_NE(file, nullptr);
    velfsWrite(file, "database", 8);
    velfsSeek(file, 0, 0);
    Drain(file);
    velfsCloseFile(file);
    velfsCopyFile(dir, "docs/a.txt", "docs/b.txt", false);
    velfsCommitTrans(dir);
    bool exists = false;
    velfsIsFileExist(second, "docs/b.txt", &exists);
    EnumHandle* listing = velfsCreateEnumIndir(second, "docs/");
    ASSERT_NE(listing, nullptr);
    Walk(listing);
    velfsCloseEnum(listing);
    velfsDeleteFile(second, "docs/b.txt");
    velfsCloseDir(second);
    velfsCloseDir(dir);
    FileHandle* full = velfsCreateFile((database + ":docs/a.txt").c_str(), 0);
    ASSERT_NE(full, nullptr);
    Drain(full);
    velfsCloseFile(full);
    EnumHandle* fullListing = velfsCreateEnum((database + ":docs/").c_str());
    ASSERT_NE(fullListing, nullptr);
    Walk(fullListing);
    velfsCloseEnum(fullListing);
  }

  void MountCycle() {
    velFSMountPath("leakdb:", PathOf("store.db").c_str());
    velFSMountPath("leakzip:", PathOf("pack.zip").c_str());
    velFSMountPath("leakdir:", PathOf("native").c_str());
    for (const char* path : {"leakdb:stub/a.txt", "leakzip:docs/long.txt", "leakdir:docs/a.txt"}) {
      FileStub* stub = velFSCreateStub(path, 3);
      ASSERT_NE(stub, nullptr) << path;
      char buffer[64];
      stub->read(stub->file, buffer, sizeof buffer);
      velFSDeleteStub(stub);
    }
    char syspath[512];
    EXPECT_GT(velFSVelToSyspath("leakdir:docs/a.txt", syspath, sizeof syspath), 0u);
    velFSUnmountPath("leakdb:");
    velFSUnmountPath("leakzip:");
    velFSUnmountPath("leakdir:");
  }

  void FailureCycle() {
    EXPECT_EQ(velfsOpenDir(PathOf("plain.txt").c_str()), nullptr);
    EXPECT_EQ(velfsOpenDir(PathOf("overread.zip").c_str()), nullptr);
    EXPECT_EQ(velfsOpenDir(PathOf("missing/dir/store.db").c_str()), nullptr);
    EXPECT_EQ(velfsCreateFile((PathOf("plain.txt") + ":x").c_str(), 0), nullptr);
    DirHandle* retried = velfsOpenDir(PathOf("retry").c_str());
    ASSERT_NE(retried, nullptr);
    velfsCloseDir(retried);
    velFSMountPath("leakbad:", PathOf("plain.txt").c_str());  // no back-end takes it
    EXPECT_EQ(velFSCreateStub("leakbad:x", 0), nullptr);
  }

  void Cycle() {
    NativeCycle();
    ArchiveCycle();
    DatabaseCycle();
    MountCycle();
    FailureCycle();
  }

  // Nothing the process holds refers to the scratch directory.
  void ExpectNothingOfOurs() {
    const std::string ours = velfs::testing::CanonicalPath(PathOf());
    for (const auto& [descriptor, target] : Descriptors()) {
      EXPECT_NE(target.rfind(ours, 0), 0u) << "descriptor " << descriptor << " -> " << target;
    }
    for (const std::string& mapping : Mappings()) {
      EXPECT_EQ(mapping.find(ours), std::string::npos) << mapping;
    }
  }
};

TEST_F(HandleLeakTest, NoDescriptorOrMappingOutlivesItsHandles) {
  Cycle();  // first use: the mount table and the libraries' own state come into being
  ASSERT_FALSE(HasFatalFailure());
  ExpectNothingOfOurs();
  const std::map<int, std::string> descriptors = Descriptors();
  const std::vector<std::string> mappings = Mappings();
  for (int cycle = 0; cycle < kCycles; ++cycle) {
    Cycle();
    ASSERT_FALSE(HasFatalFailure()) << "cycle " << cycle;
  }
  ExpectNothingOfOurs();
  EXPECT_EQ(Descriptors(), descriptors);
  EXPECT_EQ(Mappings(), mappings);
}

}  // namespace
}  // namespace velfs::reliability
