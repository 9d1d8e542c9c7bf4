// After every handle is closed the process holds no descriptor and no file mapping that it did
// not hold before: every kind of root, file, listing, mount and stub, and roots that fail to open.
#include <limits.h>
#include <unistd.h>

#include <fstream>

#include "support.h"

namespace velfs_test {
namespace {

// What the process holds open, sorted: "fd N -> target" for every descriptor, and every file
// mapping without its address.
std::vector<std::string> HeldFiles() {
  std::vector<std::string> held;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    char target[PATH_MAX + 1];
    const ssize_t length = ::readlink(entry.path().c_str(), target, PATH_MAX);
    if (length < 0) continue;  // the directory listing's own descriptor, closed meanwhile
    held.push_back("fd " + entry.path().filename().string() + " -> " +
                   std::string(target, static_cast<std::size_t>(length)));
  }
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find('/') != std::string::npos) held.push_back(line.substr(line.find(' ') + 1));
  }
  std::sort(held.begin(), held.end());
  return held;
}

using LeakTest = ScratchTest;

TEST_F(LeakTest, NoDescriptorOrMappingOutlivesItsHandles) {
  std::vector<std::string> roots;
  for (const RootKind kind : {RootKind::kDirectory, RootKind::kArchive, RootKind::kDatabase}) {
    roots.push_back(BuildSampleRoot(kind, PathOf("root" + std::to_string(roots.size()))));
  }
  WriteHostFile(PathOf("plain.txt"), "neither an archive nor a database, long enough to probe");
  auto cycle = [&] {
    for (const std::string& root : roots) {
      DirHandle* dir = velfsOpenDir(root.c_str());
      ASSERT_NE(dir, nullptr);
      FileHandle* outliving = velfsCreateFileIndir(dir, "docs/sub/b.bin", 0);
      ReadAndClose(velfsCreateFileIndir(dir, "docs/a.txt", 0));
      FileHandle* written = velfsCreateFileIndir(dir, "made/new.txt", 1);
      velfsWrite(written, "new", 3);
      velfsCloseFile(written);
      Listing(velfsCreateEnumIndir(dir, "docs/"));
      velfsBeginTrans(dir);
      velfsCommitTrans(dir);
      velfsCloseEnum(velfsCreateEnum((root + ":docs/").c_str()));
      velfsCloseFile(velfsCreateFile((root + ":readme.txt").c_str(), 0));
      // An archive member may outlive its root; a file of any other root is closed before it.
      const bool archive = &root == &roots[1];
      if (!archive) ReadAndClose(outliving);
      velfsCloseDir(dir);
      if (archive) ReadAndClose(outliving);
      velFSMountPath("leak:", root.c_str());
      FileStub* stub = velFSCreateStub("leak:readme.txt", 0);
      ASSERT_NE(stub, nullptr);
      char byte;
      stub->read(stub->file, &byte, 1);
      velFSDeleteStub(stub);
      velFSUnmountPath("leak:");
    }
    EXPECT_EQ(velfsOpenDir(PathOf("plain.txt").c_str()), nullptr);
    EXPECT_EQ(velfsOpenDir(PathOf("missing/x").c_str()), nullptr);
  };
  cycle();
  const std::vector<std::string> held = HeldFiles();
  for (int i = 0; i < 25; ++i) cycle();
  EXPECT_EQ(HeldFiles(), held);
  for (const std::string& file : HeldFiles()) {
    EXPECT_EQ(file.find(PathOf()), std::string::npos) << file;
  }
}

}  // namespace
}  // namespace velfs_test
