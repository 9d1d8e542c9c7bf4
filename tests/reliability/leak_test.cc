// After every handle is closed the process holds no descriptor and no file mapping that it did
// not hold before: every kind of root, file, listing, mount and stub, and roots that fail to open.
#include <limits.h>
#include <unistd.h>

#include <fstream>

#include "support.h"

namespace velfs_test {
namespace {

// Descriptor number -> what it refers to.
std::map<int, std::string> OpenDescriptors() {
  std::map<int, std::string> descriptors;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    char target[PATH_MAX + 1];
    const ssize_t length = ::readlink(entry.path().c_str(), target, PATH_MAX);
    if (length < 0) continue;  // the directory listing's own descriptor, closed meanwhile
    descriptors[std::stoi(entry.path().filename().string())] =
        std::string(target, static_cast<std::size_t>(length));
  }
  return descriptors;
}

// The file mappings of the process without their addresses, sorted.
std::vector<std::string> FileMappings() {
  std::vector<std::string> mappings;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find('/') != std::string::npos) mappings.push_back(line.substr(line.find(' ') + 1));
  }
  std::sort(mappings.begin(), mappings.end());
  return mappings;
}

using LeakTest = ScratchTest;

void Drain(FileHandle* file) {
  ReadRest(file);
  velfsCloseFile(file);
}

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
      Drain(velfsCreateFileIndir(dir, "docs/a.txt", 0));
      FileHandle* written = velfsCreateFileIndir(dir, "made/new.txt", 1);
      velfsWrite(written, "new", 3);
      velfsCloseFile(written);
      EnumHandle* listing = velfsCreateEnumIndir(dir, "docs/");
      Listing(listing);
      velfsCloseEnum(listing);
      velfsBeginTrans(dir);
      velfsCommitTrans(dir);
      velfsCloseEnum(velfsCreateEnum((root + ":docs/").c_str()));
      velfsCloseFile(velfsCreateFile((root + ":readme.txt").c_str(), 0));
      // An archive member may outlive its root; a file of any other root is closed before it.
      const bool archive = &root == &roots[1];
      if (!archive) Drain(outliving);
      velfsCloseDir(dir);
      if (archive) Drain(outliving);
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
  const auto descriptors = OpenDescriptors();
  const auto mappings = FileMappings();
  for (int i = 0; i < 25; ++i) cycle();
  EXPECT_EQ(OpenDescriptors(), descriptors);
  EXPECT_EQ(FileMappings(), mappings);
  for (const auto& [number, target] : OpenDescriptors()) {
    EXPECT_EQ(target.find(PathOf()), std::string::npos) << number << " -> " << target;
  }
  for (const std::string& mapping : FileMappings()) {
    EXPECT_EQ(mapping.find(PathOf()), std::string::npos) << mapping;
  }
}

}  // namespace
}  // namespace velfs_test
