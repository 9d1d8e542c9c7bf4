// The exported API, observed the same way over the three kinds of root, each built from the same
// sample tree: a host directory, a ZIP archive and a database. Where the kinds legitimately answer
// differently (seek bounds, the end-of-file test, what can be changed), the table says so.
#include <cstring>
#include <functional>

#include "support.h"

namespace velfs_test {
namespace {

class ApiContractTest : public ScratchTest, public ::testing::WithParamInterface<RootKind> {
 protected:
  void SetUp() override {
    ScratchTest::SetUp();
    const char* names[] = {"tree", "tree.zip", "store.db"};
    root_ = BuildSampleRoot(GetParam(), PathOf(names[static_cast<int>(GetParam())]));
    dir_handle_ = velfsOpenDir(root_.c_str());
    ASSERT_NE(dir_handle_, nullptr);
  }
  void TearDown() override {
    velfsCloseDir(dir_handle_);
    ScratchTest::TearDown();
  }
  bool Is(RootKind kind) const { return GetParam() == kind; }
  // A full path of a file of the root: a host path for the directory, "container:inner" else.
  std::string FullPath(const std::string& inner) const {
    return root_ + (Is(RootKind::kDirectory) ? "/" : ":") + inner;
  }

  std::string root_;
  DirHandle* dir_handle_ = nullptr;
};

TEST_P(ApiContractTest, EveryFileReadsBackThroughTheRootAndThroughItsFullPath) {
  for (const auto& [name, content] : SampleTree()) {
    EXPECT_EQ(ReadAndClose(velfsCreateFileIndir(dir_handle_, name.c_str(), 0)), content) << name;
    EXPECT_EQ(ReadFullPath(FullPath(name)), content) << name;
  }
  EXPECT_EQ(ReadAndClose(velfsCreateFileIndir(dir_handle_, "docs\\sub\\b.bin", 0)),
            SampleTree().at("docs/sub/b.bin"));
}

// Reads in pieces of the 10-byte docs/a.txt, then seeks, each from position 4: where Tell stands
// afterwards.
struct SeekCase {
  int32_t offset;
  int32_t origin;
  int32_t directory, archive, database;
};

TEST_P(ApiContractTest, ReadsAndSeeksMoveThePositionAndEachKindAnswersItsBounds) {
  const SeekCase cases[] = {
      {0, 0, 0, 0, 0},     {6, 0, 6, 6, 6},     {10, 0, 10, 10, 10}, {11, 0, 11, 4, 4},
      {-1, 0, 4, 0, 4},    {3, 1, 7, 7, 7},     {-4, 1, 0, 0, 0},    {-5, 1, 4, 0, 4},
      {6, 1, 10, 10, 10},  {7, 1, 11, 4, 4},    {0, 2, 10, 10, 10},  {-10, 2, 0, 0, 0},
      {-3, 2, 7, 7, 7},    {-11, 2, 4, 0, 4},   {1, 2, 11, 4, 4},    {2, 3, 4, 4, 4},
  };
  FileHandle* file = velfsCreateFileIndir(dir_handle_, "docs/a.txt", 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsTell(file), 0);
  EXPECT_FALSE(velfsError(file));
  char buffer[16] = {};
  EXPECT_EQ(velfsRead(file, buffer, 4), 4u);
  EXPECT_EQ(std::string(buffer, 4), "0123");
  EXPECT_EQ(velfsTell(file), 4);
  EXPECT_FALSE(velfsError(file));
  EXPECT_EQ(velfsRead(file, buffer, 6), 6u);
  EXPECT_EQ(std::string(buffer, 6), "456789");
  EXPECT_EQ(velfsTell(file), 10);
  // The database and the archive compare the position with the length; a host file reports
  // the end only once a read has run into it.
  EXPECT_EQ(velfsError(file), !Is(RootKind::kDirectory));
  EXPECT_EQ(velfsRead(file, buffer, sizeof buffer), 0u);
  EXPECT_TRUE(velfsError(file));
  for (const SeekCase& c : cases) {
    const int32_t expected =
        Is(RootKind::kDirectory) ? c.directory : Is(RootKind::kArchive) ? c.archive : c.database;
    velfsSeek(file, 4, 0);
    ASSERT_EQ(velfsTell(file), 4);
    const int32_t answer = velfsSeek(file, c.offset, c.origin);
    EXPECT_EQ(velfsTell(file), expected) << "offset " << c.offset << " origin " << c.origin;
    const int32_t target = c.origin == 0 ? c.offset : c.origin == 1 ? 4 + c.offset : 10 + c.offset;
    // A host file may be positioned past its end; the others refuse it. An accepted seek
    // answers 0 for a host file and the new position elsewhere; a refused one answers -1,
    // except in a database, which answers the unchanged position.
    const bool moved = c.origin <= 2 && target >= 0 && (target <= 10 || Is(RootKind::kDirectory));
    EXPECT_EQ(answer, moved ? (Is(RootKind::kDirectory) ? 0 : target)
                            : (Is(RootKind::kDatabase) ? 4 : -1))
        << "offset " << c.offset << " origin " << c.origin;
    if (expected >= 0 && expected < 10) {
      ASSERT_EQ(velfsRead(file, buffer, 1), 1u);
      EXPECT_EQ(buffer[0], static_cast<char>('0' + expected));
    }
  }
  velfsCloseFile(file);
}

TEST_P(ApiContractTest, ListingsGiveFilesAndDirectoriesOfOneLevel) {
  EnumHandle* root = velfsCreateEnumIndir(dir_handle_, "");
  ASSERT_NE(root, nullptr);
  const std::map<std::string, bool> top = {{"readme.txt", false}, {"docs/", true}};
  EXPECT_EQ(Listing(root, true), top);
  EXPECT_FALSE(velfsMoveNext(root));
  char* name = reinterpret_cast<char*>(&name);
  EXPECT_FALSE(velfsGetName(root, &name));
  velfsReset(root);
  EXPECT_EQ(Listing(root), top);

  EnumHandle* docs = velfsCreateEnumIndir(dir_handle_, "docs/");
  ASSERT_NE(docs, nullptr);
  ASSERT_TRUE(velfsMoveNext(docs));
  EXPECT_FALSE(velfsGetName(docs, nullptr));  // a null out-pointer: the failure value
  EXPECT_FALSE(velfsGetFullName(docs, nullptr));
  std::map<std::string, std::string> names;
  do {
    char* full = nullptr;
    char* last = nullptr;
    ASSERT_TRUE(velfsGetFullName(docs, &full));
    ASSERT_TRUE(velfsGetName(docs, &last));
    names[Take(full)] = Take(last);
  } while (velfsMoveNext(docs));
  // A directory's own name keeps its '/' in a database and an archive; a host directory's not.
  const std::string subName = Is(RootKind::kDirectory) ? "sub" : "sub/";
  EXPECT_EQ(names, (std::map<std::string, std::string>{{"docs/a.txt", "a.txt"},
                                                       {"docs/sub/", subName}}));
  velfsCloseFile(reinterpret_cast<FileHandle*>(docs));  // one close function for both handles
}

TEST_P(ApiContractTest, ExistenceTestsTellFilesFromDirectories) {
  struct Case {
    const char* path;
    bool file, directory;
  };
  const Case cases[] = {
      {"readme.txt", true, false}, {"docs/a.txt", true, false}, {"docs\\sub\\b.bin", true, false},
      {"docs", false, true},       {"docs/sub", false, true},   {"", false, true},
      {"missing.txt", false, false}, {"docs/missing", false, false},
  };
  for (const Case& c : cases) {
    bool exists = !c.file;
    EXPECT_TRUE(velfsIsFileExist(dir_handle_, c.path, &exists)) << c.path;
    EXPECT_EQ(exists, c.file) << "file " << c.path;
    // An archive knows only the directories it has members for, and has none for its root.
    const bool directory = c.directory && !(Is(RootKind::kArchive) && *c.path == '\0');
    exists = !directory;
    EXPECT_TRUE(velfsIsDirectoryExist(dir_handle_, c.path, &exists)) << c.path;
    EXPECT_EQ(exists, directory) << "directory " << c.path;
  }
  EXPECT_FALSE(velfsIsFileExist(dir_handle_, "readme.txt", nullptr));  // no out-pointer
  EXPECT_FALSE(velfsIsDirectoryExist(dir_handle_, "docs", nullptr));
}

// Operations that only a database root supports, in an order in which each succeeds there.
struct ChangeCall {
  const char* what;
  std::function<bool(DirHandle*)> call;
};
const ChangeCall kChanges[] = {
    {"copy", [](DirHandle* d) { return velfsCopyFile(d, "readme.txt", "copy.txt", true); }},
    {"move", [](DirHandle* d) { return velfsMoveFile(d, "copy.txt", "moved.txt", false); }},
    {"rename", [](DirHandle* d) { return velfsRenameFile(d, "moved.txt", "renamed.txt"); }},
    {"delete file", [](DirHandle* d) { return velfsDeleteFile(d, "renamed.txt"); }},
    {"begin", [](DirHandle* d) { return velfsBeginTrans(d); }},
    {"delete directory", [](DirHandle* d) { return velfsDeleteDirectory(d, "docs/sub"); }},
    {"commit", [](DirHandle* d) { return velfsCommitTrans(d); }},
};

// The other roots answer false to each and change nothing.
TEST_P(ApiContractTest, ChangesSucceedOnlyOnADatabaseAndLeaveOtherRootsAsTheyWere) {
  for (const ChangeCall& c : kChanges) {
    EXPECT_EQ(c.call(dir_handle_), Is(RootKind::kDatabase)) << c.what;
  }
  EXPECT_EQ(Exists(dir_handle_, "docs/sub", true), Is(RootKind::kDatabase) ? "no" : "yes");
  for (const char* name : {"copy.txt", "moved.txt", "renamed.txt"}) {
    EXPECT_EQ(Exists(dir_handle_, name), "no") << name;
  }
  EXPECT_EQ(ReadFullPath(FullPath("readme.txt")), "hello, world\n");

  // Writing: an archive member opens for reading only; a resize works on a database only.
  FileHandle* file = velfsCreateFileIndir(dir_handle_, "readme.txt", 3);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsRead(file, nullptr, 5), 0u);  // null buffers: nothing read or written
  EXPECT_EQ(velfsWrite(file, nullptr, 5), 0u);
  EXPECT_EQ(velfsTell(file), 0);
  EXPECT_EQ(velfsWrite(file, "HELLO", 5), Is(RootKind::kArchive) ? 0u : 5u);
  EXPECT_EQ(velfsResize(file, 2), Is(RootKind::kDatabase));
  velfsCloseFile(file);
  const std::string expected = Is(RootKind::kArchive)    ? "hello, world\n"
                               : Is(RootKind::kDatabase) ? "HE"
                                                         : "HELLO, world\n";
  EXPECT_EQ(ReadFullPath(FullPath("readme.txt")), expected);
}

// Files and listings keep what they read from alive: closing the DirHandle they were made through
// leaves them fully usable (and a stub its mount: see below).
TEST_P(ApiContractTest, FilesAndListingsOutliveTheirRoot) {
  FileHandle* file = velfsCreateFileIndir(dir_handle_, "docs/a.txt", 0);
  EnumHandle* listing = velfsCreateEnumIndir(dir_handle_, "docs/");
  ASSERT_NE(file, nullptr);
  ASSERT_NE(listing, nullptr);
  velfsCloseDir(dir_handle_);
  dir_handle_ = nullptr;
  EXPECT_EQ(ReadRest(file), "0123456789");
  EXPECT_EQ(velfsSeek(file, 0, 0), 0);
  EXPECT_EQ(ReadRest(file), "0123456789");
  EXPECT_EQ(Listing(listing), (std::map<std::string, bool>{{"docs/a.txt", false},
                                                            {"docs/sub/", true}}));
  velfsCloseFile(file);
}

// A read-only handle reads every root kind as velfsOpenDir does and refuses every change; the
// container's bytes stay as they were.
TEST_P(ApiContractTest, AReadOnlyRootReadsAndRefusesEveryChange) {
  const std::string container = Is(RootKind::kDirectory) ? root_ + "/readme.txt" : root_;
  const std::string before = ReadHostFile(container);
  DirHandle* dir = velfsOpenDirReadOnly((root_ + (Is(RootKind::kDirectory) ? "" : ":")).c_str());
  ASSERT_NE(dir, nullptr);
  FileHandle* file = velfsCreateFileIndir(dir, "docs/a.txt", 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(ReadRest(file), "0123456789");
  EXPECT_EQ(velfsSeek(file, 2, 0), Is(RootKind::kDirectory) ? 0 : 2);
  EXPECT_EQ(velfsWrite(file, "xy", 2), 0u);
  EXPECT_FALSE(velfsResize(file, 1));
  velfsCloseFile(file);
  for (uint32_t mode = 1; mode <= 5; ++mode) {
    EXPECT_EQ(velfsCreateFileIndir(dir, "readme.txt", mode), nullptr) << "mode " << mode;
    EXPECT_EQ(velfsCreateFileIndir(dir, "new.txt", mode), nullptr) << "mode " << mode;
  }
  EXPECT_EQ(Exists(dir, "new.txt"), "no");
  EXPECT_EQ(Exists(dir, "docs/sub", true), "yes");
  EXPECT_EQ(Listing(velfsCreateEnumIndir(dir, "docs/")),
            (std::map<std::string, bool>{{"docs/a.txt", false}, {"docs/sub/", true}}));
  EXPECT_FALSE(velfsMoveFile(dir, "readme.txt", "moved.txt", false));
  EXPECT_FALSE(velfsDeleteFile(dir, "readme.txt"));
  for (const ChangeCall& c : kChanges) EXPECT_FALSE(c.call(dir)) << c.what;
  velfsCloseDir(dir);
  EXPECT_EQ(ReadHostFile(container), before);
  EXPECT_EQ(ReadFullPath(FullPath("docs/sub/b.bin")), SampleTree().at("docs/sub/b.bin"));
}

TEST_P(ApiContractTest, MountedRootMapsVirtualPathsAndServesStubs) {
  const std::string name = "contract" + KindName({GetParam(), 0}) + ":";
  velFSMountPath(name.c_str(), root_.c_str());
  velFSMountPath(name.c_str(), PathOf().c_str());  // a name is mounted once: the first stays

  const std::string virtualPath = name + "docs/a.txt";
  const std::string mapped = root_ + "/docs/a.txt";
  EXPECT_EQ(velFSVelToSyspath(virtualPath.c_str(), nullptr, 0), mapped.size());
  // The copy follows strncpy: NUL-padded when shorter than the buffer, cut and unterminated
  // when it is not.
  for (const std::size_t size : {mapped.size() + 4, mapped.size() + 1, mapped.size(),
                                 std::size_t{5}}) {
    std::string buffer(size + 2, '#');
    EXPECT_EQ(velFSVelToSyspath(virtualPath.c_str(), buffer.data(), size), mapped.size());
    std::string expected = mapped.substr(0, size);
    expected.resize(size, '\0');
    EXPECT_EQ(buffer, expected + "##") << "buffer of " << size;
  }

  FileStub* stub = velFSCreateStub(virtualPath.c_str(), 0);
  ASSERT_NE(stub, nullptr);
  EXPECT_EQ(stub->read(stub->file, nullptr, 5), 0u);  // null buffers: nothing read or written
  EXPECT_EQ(stub->write(stub->file, nullptr, 5), 0u);
  EXPECT_EQ(stub->tell(stub->file), 0);
  char bytes[16] = {};
  EXPECT_EQ(stub->seek(stub->file, 3, 0), Is(RootKind::kDirectory) ? 0 : 3);
  EXPECT_EQ(stub->read(stub->file, bytes, sizeof bytes), 7u);
  EXPECT_EQ(std::string(bytes, 7), "3456789");
  EXPECT_EQ(stub->tell(stub->file), 10);
  EXPECT_NE(stub->error(stub->file), 0);
  EXPECT_EQ(stub->resize(stub->file, 1), 0);
  // Opened for reading: only a database file, which ignores the mode, takes the byte.
  EXPECT_EQ(stub->write(stub->file, "x", 1), Is(RootKind::kDatabase) ? 1u : 0u);

  // A database opens any file name (its row comes with the first write, which a null buffer is
  // not); the others refuse, and a host directory makes no parent for a mode that does not create.
  FileStub* missing = velFSCreateStub((name + "new/missing.txt").c_str(), 0);
  EXPECT_EQ(missing != nullptr, Is(RootKind::kDatabase));
  EXPECT_EQ(missing == nullptr ? 0u : missing->write(missing->file, nullptr, 5), 0u);
  velFSDeleteStub(missing);
  EXPECT_EQ(Exists(dir_handle_, "new", true), "no");
  EXPECT_EQ(velFSCreateStub(name.c_str(), 0), nullptr);
  velFSUnmountPath(name.c_str());
  EXPECT_EQ(velFSVelToSyspath(virtualPath.c_str(), nullptr, 0), 0u);
  EXPECT_EQ(velFSCreateStub(virtualPath.c_str(), 0), nullptr);
  // The stub opened before outlives the mount.
  EXPECT_EQ(stub->seek(stub->file, 0, 0), 0);
  EXPECT_EQ(stub->read(stub->file, bytes, 10), 10u);
  EXPECT_EQ(std::string(bytes, 10), "0123456789");
  velFSDeleteStub(stub);
}

INSTANTIATE_TEST_SUITE_P(AllRoots, ApiContractTest,
                         ::testing::Values(RootKind::kDirectory, RootKind::kArchive,
                                           RootKind::kDatabase),
                         KindName);

// Null handles and arguments: every function answers its failure value and touches nothing.
TEST(ApiNullArgumentsTest, EveryFunctionAnswersItsFailureValue) {
  bool exists = true;
  char* name = nullptr;
  char buffer[4] = {};
  EXPECT_EQ(velfsOpenDir(nullptr), nullptr);
  EXPECT_EQ(velfsOpenDir(""), nullptr);
  EXPECT_FALSE(velfsIsFileExist(nullptr, "a", &exists));
  EXPECT_FALSE(velfsIsDirectoryExist(nullptr, "a", &exists));
  EXPECT_TRUE(exists);
  EXPECT_FALSE(velfsDeleteFile(nullptr, "a"));
  EXPECT_FALSE(velfsDeleteDirectory(nullptr, "a"));
  EXPECT_FALSE(velfsRenameFile(nullptr, "a", "b"));
  EXPECT_FALSE(velfsCopyFile(nullptr, "a", "b", false));
  EXPECT_FALSE(velfsMoveFile(nullptr, "a", "b", false));
  EXPECT_FALSE(velfsBeginTrans(nullptr));
  EXPECT_FALSE(velfsCommitTrans(nullptr));
  EXPECT_EQ(velfsCreateFile(nullptr, 0), nullptr);
  EXPECT_EQ(velfsCreateFile("", 0), nullptr);
  EXPECT_EQ(velfsCreateFile("no-colon-and-nothing-here", 0), nullptr);
  EXPECT_EQ(velfsCreateFileIndir(nullptr, "a", 0), nullptr);
  EXPECT_EQ(velfsCreateEnum(nullptr), nullptr);
  EXPECT_EQ(velfsCreateEnum(""), nullptr);
  EXPECT_EQ(velfsCreateEnumIndir(nullptr, ""), nullptr);
  EXPECT_EQ(velfsRead(nullptr, buffer, 4), 0u);
  EXPECT_EQ(velfsWrite(nullptr, buffer, 4), 0u);
  EXPECT_EQ(velfsTell(nullptr), 0);
  EXPECT_EQ(velfsSeek(nullptr, 0, 0), -1);
  EXPECT_FALSE(velfsError(nullptr));
  EXPECT_FALSE(velfsResize(nullptr, 0));
  EXPECT_FALSE(velfsMoveNext(nullptr));
  velfsReset(nullptr);
  EXPECT_FALSE(velfsGetName(nullptr, &name));
  EXPECT_FALSE(velfsGetFullName(nullptr, &name));
  EXPECT_EQ(name, nullptr);
  EXPECT_FALSE(velfsIsDirectory(nullptr));
  velfsCloseFile(nullptr);
  velfsCloseEnum(nullptr);
  velfsCloseDir(nullptr);
  velFSMountPath(nullptr, "x");
  velFSMountPath("x:", "");
  velFSUnmountPath(nullptr);
  EXPECT_EQ(velFSVelToSyspath(nullptr, buffer, 4), 0u);
  EXPECT_EQ(velFSVelToSyspath("unmounted:a", buffer, 4), 0u);
  EXPECT_EQ(std::memcmp(buffer, "\0\0\0\0", 4), 0);
  EXPECT_EQ(velFSCreateDirectory(nullptr), 0);
  EXPECT_EQ(velFSCreateStub(nullptr, 0), nullptr);
  EXPECT_EQ(velFSCreateStub("", 0), nullptr);
  EXPECT_EQ(velFSCreateStub("no-app-mount.txt", 0), nullptr);
  velFSDeleteStub(nullptr);
  EXPECT_EQ(DllMain(nullptr, 0, nullptr), 1);
}

}  // namespace
}  // namespace velfs_test

namespace velfs_test {
namespace {

// Which back-end took a root, as a host sees it: only a database begins a transaction, and only
// a host directory knows its root as a directory.
std::string KindOfRoot(const std::string& root) {
  DirHandle* dir = velfsOpenDir(root.c_str());
  if (dir == nullptr) return "none";
  bool exists = false;
  std::string kind = velfsBeginTrans(dir) ? "database"
                     : velfsIsDirectoryExist(dir, "", &exists) && exists ? "directory"
                                                                         : "archive";
  velfsCommitTrans(dir);
  velfsCloseDir(dir);
  return kind;
}

using StorageSelectionTest = ScratchTest;

// A file that starts as a database but ends with a ZIP archive's end record is offered to the
// archive back-end first, as every other file is; one whose tail merely holds the signature in
// a row's content, and which zziplib therefore refuses, stays a database.
TEST_F(StorageSelectionTest, ADatabaseThatIsAlsoAnArchiveOpensAsTheArchive) {
  BuildSampleRoot(RootKind::kDatabase, PathOf("store.db"));
  WriteZip(PathOf("both.db"), {{"zip.txt", "from the archive"}}, "",
           ReadHostFile(PathOf("store.db")));
  EXPECT_EQ(KindOfRoot(PathOf("both.db")), "archive");
  EXPECT_EQ(ReadFullPath(PathOf("both.db") + ":zip.txt"), "from the archive");
  EXPECT_EQ(ReadFullPath(PathOf("both.db") + ":readme.txt"), "<absent>");

  FileHandle* file = velfsCreateFile((PathOf("store.db") + ":tail.bin").c_str(), 1);
  ASSERT_NE(file, nullptr);
  const std::string signature("PK\5\6PK\6\6", 8);
  EXPECT_EQ(velfsWrite(file, signature.data(), signature.size()), signature.size());
  velfsCloseFile(file);
  EXPECT_NE(ReadHostFile(PathOf("store.db")).find(signature), std::string::npos);
  EXPECT_EQ(KindOfRoot(PathOf("store.db")), "database");
  EXPECT_EQ(ReadFullPath(PathOf("store.db") + ":readme.txt"), "hello, world\n");
}

// Which back-end takes each root, and whether a read-only open takes it: only what already is
// a root, leaving every file exactly as it was, bytes and modification time. The read-only open
// comes first: velfsOpenDir makes a database of an empty or a missing file.
TEST_F(StorageSelectionTest, ARootGoesToTheFirstBackEndThatAcceptsIt) {
  std::filesystem::create_directories(PathOf("looks-like.zip"));
  BuildSampleRoot(RootKind::kArchive, PathOf("pack.zip"));
  BuildSampleRoot(RootKind::kArchive, PathOf("pack.dat"));
  BuildSampleRoot(RootKind::kDatabase, PathOf("store.db"));
  WriteHostFile(PathOf("notes.txt"), "neither an archive nor a database, but long enough");
  WriteHostFile(PathOf("empty"), "");
  ASSERT_TRUE(SecondConnection(PathOf("foreign.db"))
                  .Exec("CREATE TABLE other(x); INSERT INTO other VALUES (1);"));
  const std::string here = PathOf();
  std::string backslashed = here + "/looks-like.zip";
  for (char& c : backslashed) c = c == '/' ? '\\' : c;
  struct Case {
    std::string root;
    const char* kind;
    bool readOnly;
  };
  const Case cases[] = {
      {here, "directory", true},
      {here + "/", "directory", true},
      {here + "/looks-like.zip", "directory", true},
      {here + "/looks-like.zip:", "directory", true},
      {backslashed, "directory", true},
      {here + "/pack.zip", "archive", true},
      {here + "/pack.zip:", "archive", true},
      {here + "/pack.dat", "archive", true},
      {here + "/store.db", "database", true},
      {here + "/store.db:", "database", true},
      {here + "/notes.txt", "none", false},
      {here + "/foreign.db", "database", false},
      {here + "/empty", "database", false},
      {here + "/new.db", "database", false},
      {here + "/missing/new.db", "none", false},
      {":", "database", false},
  };
  for (const auto& [root, kind, readOnly] : cases) {
    const std::string file = root.back() == ':' ? root.substr(0, root.size() - 1) : root;
    const bool isFile = std::filesystem::is_regular_file(file);
    const std::string bytes = isFile ? ReadHostFile(file) : "";
    const auto time = isFile ? std::filesystem::last_write_time(file)
                             : std::filesystem::file_time_type();
    DirHandle* dir = velfsOpenDirReadOnly(root.c_str());
    EXPECT_EQ(dir != nullptr, readOnly) << root;
    velfsCloseDir(dir);
    EXPECT_EQ(std::filesystem::is_regular_file(file), isFile) << root;
    if (isFile) {
      EXPECT_EQ(ReadHostFile(file), bytes) << root;
      EXPECT_EQ(std::filesystem::last_write_time(file), time) << root;
    }
    EXPECT_EQ(KindOfRoot(root), kind) << root;
  }
  EXPECT_TRUE(std::filesystem::is_regular_file(PathOf("new.db")));
  EXPECT_FALSE(std::filesystem::exists(PathOf("missing")));
  EXPECT_EQ(ReadHostFile(PathOf("notes.txt")), "neither an archive nor a database, but long enough");
  EXPECT_EQ(velfsOpenDirReadOnly(nullptr), nullptr);
  EXPECT_EQ(velfsOpenDirReadOnly(""), nullptr);
}

}  // namespace
}  // namespace velfs_test
