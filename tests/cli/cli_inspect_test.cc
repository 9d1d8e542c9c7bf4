// ls, tree, stat and cat: the same sample tree as a directory root, a ZIP archive and a database
// root prints the same (the tool sorts what the back-ends list in their own order), and every
// failure is one message on standard error with status 1.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>

#include "cli_test_support.h"
#include "zip_fixture.h"

namespace velfs::testing {
namespace {

struct Back {
  const char* name;  // the back-end as stat names it
  const char* root;  // how the root is written on the command line
};

// Test names show the back-end rather than the bytes of the parameter.
void PrintTo(const Back& back, std::ostream* out) { *out << back.name; }

class CliInspectTest : public CliTest, public ::testing::WithParamInterface<Back> {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    const std::string kind = GetParam().name;
    if (kind == "directory") MakeSampleTree("tree");
    if (kind == "ZIP archive") MakeSampleZip("pack.zip");
    if (kind == "SQLite database") MakeSampleDatabase("store.db");
  }
  std::string At(const std::string& inner) const { return GetParam().root + inner; }
  // The root stat names for a file: a file of a directory root is served by its own directory.
  std::string RootOfFile(const std::string& directory) const {
    return std::string(GetParam().name) == "directory" ? At(directory) : GetParam().root;
  }
};

INSTANTIATE_TEST_SUITE_P(Roots, CliInspectTest,
                         ::testing::Values(Back{"directory", "tree/"},
                                           Back{"ZIP archive", "pack.zip:"},
                                           Back{"SQLite database", "store.db:"}),
                         [](const auto& info) {
                           return std::string(info.param.name).substr(0, 3);
                         });

TEST_P(CliInspectTest, LsListsOneLevelDirectoriesFirst) {
  const ToolRun run = Run({"ls", At("")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "docs/\na.txt\n");
  EXPECT_EQ(run.err, "");
  EXPECT_EQ(Run({"ls", At("docs")}).out, "deep/\nb.txt\n\xc3\xbcn\xc3\xaf.txt\n");
  EXPECT_EQ(Run({"ls", At("docs/")}).out, "deep/\nb.txt\n\xc3\xbcn\xc3\xaf.txt\n");
}

TEST_P(CliInspectTest, LsLongShowsKindAndSize) {
  const ToolRun run = Run({"ls", "-l", At("docs/")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "dir   - deep/\nfile  6 b.txt\nfile 25 \xc3\xbcn\xc3\xaf.txt\n");
}

TEST_P(CliInspectTest, LsRecursiveListsTheWholeTree) {
  const ToolRun run = Run({"ls", "-R", At("")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            "docs/\ndocs/deep/\ndocs/deep/c.bin\ndocs/b.txt\ndocs/\xc3\xbcn\xc3\xaf.txt\na.txt\n");
  EXPECT_EQ(Run({"ls", "-lR", At("docs/deep")}).out, "file 6 c.bin\n");
}

TEST_P(CliInspectTest, LsOfAFileListsTheFile) {
  EXPECT_EQ(Run({"ls", At("a.txt")}).out, At("a.txt") + "\n");
  EXPECT_EQ(Run({"ls", "-l", At("a.txt")}).out, "file 6 " + At("a.txt") + "\n");
}

TEST_P(CliInspectTest, TreeDrawsDirectoriesFirstAndCounts) {
  const ToolRun run = Run({"tree", At("")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, At("") +
                         "\n"
                         "├── docs/\n"
                         "│   ├── deep/\n"
                         "│   │   └── c.bin\n"
                         "│   ├── b.txt\n"
                         "│   └── \xc3\xbcn\xc3\xaf.txt\n"
                         "└── a.txt\n"
                         "\n"
                         "2 directories, 4 files\n");
  EXPECT_EQ(Run({"tree", At("docs/deep/")}).out,
            At("docs/deep/") + "\n└── c.bin\n\n0 directories, 1 file\n");
}

TEST_P(CliInspectTest, StatOfAFileNamesSizeRootAndBackEnd) {
  const ToolRun run = Run({"stat", At("docs/deep/c.bin")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "path: " + At("docs/deep/c.bin") + "\nkind: file\nsize: 6\nroot: " +
                         RootOfFile("docs/deep/") + "\nback-end: " + GetParam().name + "\n");
}

TEST_P(CliInspectTest, StatOfTheRootCountsItsEntries) {
  const ToolRun run = Run({"stat", At("")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "path: " + At("") + "\nkind: directory\nentries: 2\nroot: " + At("") +
                         "\nback-end: " + GetParam().name + "\n");
}

TEST_P(CliInspectTest, CatWritesTheExactBytesOfEveryFile) {
  const ToolRun run = Run({"cat", At("docs/deep/c.bin"), At("a.txt")});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, std::string("\0\1\2\xff\r\n", 6) + "alpha\n");
  EXPECT_EQ(run.err, "");
}

TEST_P(CliInspectTest, CatGoesOnAfterAMissingFileAndFails) {
  const ToolRun run = Run({"cat", At("a.txt"), At("nope.txt"), At("docs/b.txt")});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "alpha\nbravo\n");
  EXPECT_EQ(run.err, "velfs: " + At("nope.txt") + ": no such file\n");
}

TEST_P(CliInspectTest, CatOfADirectoryFails) {
  const ToolRun run = Run({"cat", At("docs")});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "velfs: " + At("docs") + ": is a directory\n");
}

TEST_P(CliInspectTest, TreeOfAFileFails) {
  const ToolRun run = Run({"tree", At("a.txt")});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "velfs: " + At("a.txt") + ": not a directory\n");
}

TEST_P(CliInspectTest, MissingPathsFail) {
  for (const char* command : {"ls", "tree", "stat"}) {
    const ToolRun run = Run({command, At("nothing/here")});
    EXPECT_EQ(run.status, 1) << command;
    EXPECT_EQ(run.out, "") << command;
    EXPECT_EQ(run.err, "velfs: " + At("nothing/here") + ": no such file or directory\n");
  }
}

using CliInspectFailureTest = CliTest;

TEST_F(CliInspectFailureTest, MissingRootIsReportedAndNotCreated) {
  for (const char* command : {"ls", "tree", "stat", "cat"}) {
    const ToolRun run = Run({command, "missing.db:docs/a.txt"});
    EXPECT_EQ(run.status, 1) << command;
    EXPECT_EQ(run.err, "velfs: missing.db: root not found\n") << command;
  }
  EXPECT_FALSE(std::filesystem::exists(PathOf("missing.db")));
}

TEST_F(CliInspectFailureTest, FileThatIsNeitherZipNorDatabaseIsNamed) {
  WriteHostFile(PathOf("notes.txt"), "plain text, not a storage\n");
  const ToolRun run = Run({"ls", "notes.txt:"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: notes.txt: neither a ZIP archive nor an SQLite database\n");
  EXPECT_EQ(ReadHostFile(PathOf("notes.txt")), "plain text, not a storage\n");
}

TEST_F(CliInspectFailureTest, RootThatIsNeitherFileNorDirectoryIsNamed) {
  ASSERT_EQ(::mkfifo(PathOf("fifo").c_str(), 0600), 0);
  const ToolRun run = Run({"ls", "fifo:"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: fifo: not a directory, ZIP archive or database file\n");
}

// A link to its own directory lists until the host refuses to follow more links (ELOOP; 40
// on Linux), as it does for a host program of the library.
TEST_F(CliInspectFailureTest, SymbolicLinkLoopInADirectoryRootEnds) {
  MakeSampleTree("tree");
  std::filesystem::create_directory_symlink(PathOf("tree"), PathOf("tree/loop"));
  for (const char* command : {"ls", "tree"}) {
    std::vector<std::string> args = {command, "tree"};
    if (std::string(command) == "ls") args.insert(args.begin() + 1, "-R");
    const ToolRun run = Run(args);
    EXPECT_EQ(run.status, 0) << command << run.err;
    EXPECT_EQ(run.err, "");
    const char* nested = std::string(command) == "ls" ? "loop/loop/a.txt\n" : "a.txt\n";
    EXPECT_NE(run.out.find(nested), std::string::npos) << command;
    EXPECT_LT(std::count(run.out.begin(), run.out.end(), '\n'), 1000) << command;
  }
}

TEST_F(CliInspectFailureTest, RootBelowAFileIsNotFound) {
  WriteHostFile(PathOf("a.txt"), "x");
  const ToolRun run = Run({"ls", "a.txt/store.db:"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: a.txt/store.db: root not found (part of the path is a file)\n");
}

TEST_F(CliInspectFailureTest, DamagedArchiveMemberIsReported) {
  const std::string text(4096, 'v');
  ASSERT_TRUE(WriteZip(PathOf("pack.zip"), {Deflated("v.txt", text)}));
  std::string bytes = ReadHostFile(PathOf("pack.zip"));
  const std::size_t data = LocalDataOffset(bytes, "v.txt");
  ASSERT_NE(data, std::string::npos);
  bytes[data] = static_cast<char>(0xff);  // an invalid deflate block type
  bytes[data + 1] = static_cast<char>(0xff);
  WriteHostFile(PathOf("pack.zip"), bytes);
  const ToolRun run = Run({"cat", "pack.zip:v.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "velfs: pack.zip:v.txt: read failed at byte 0 (damaged archive member?)\n");
}

TEST_F(CliInspectFailureTest, BackEndFollowsTheContentNotTheName) {
  MakeSampleZip("archive.bin");
  std::filesystem::create_directory(PathOf("folder.db"));
  MakeSampleDatabase("data.zip");
  EXPECT_EQ(Run({"stat", "archive.bin:"}).out,
            "path: archive.bin:\nkind: directory\nentries: 2\nroot: archive.bin:\n"
            "back-end: ZIP archive\n");
  EXPECT_EQ(Run({"stat", "folder.db"}).out,
            "path: folder.db\nkind: directory\nentries: 0\nroot: folder.db/\n"
            "back-end: directory\n");
  EXPECT_EQ(Run({"stat", "data.zip:a.txt"}).out,
            "path: data.zip:a.txt\nkind: file\nsize: 6\nroot: data.zip:\n"
            "back-end: SQLite database\n");
}

}  // namespace
}  // namespace velfs::testing
