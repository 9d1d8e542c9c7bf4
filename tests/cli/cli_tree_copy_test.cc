// import and export: whole trees into a database root in one transaction (an import killed with
// SIGKILL part-way leaves the database as it was), into a directory root, out of every kind of
// root; the summary line, the progress bar on a terminal only, and the refusals, which write
// nothing.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include "cli_test_support.h"
#include "zip_fixture.h"

namespace velfs::testing {
namespace {

using CliTreeCopyTest = CliTest;

TEST_F(CliTreeCopyTest, ImportIntoANewDatabase) {
  MakeSampleTree("assets");
  const ToolRun run = Run({"import", "assets", "store.db:"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "imported 4 files (43 bytes) from assets into store.db:\n");
  EXPECT_EQ(run.err, "");  // no progress bar: standard error is not a terminal
  EXPECT_EQ(DatabaseRows(PathOf("store.db")), Sample());
}

TEST_F(CliTreeCopyTest, ImportBelowAPrefixReplacesAndKeepsOtherRows) {
  MakeSampleDatabase("store.db");
  MakeHostTree(PathOf("update"), {{"a.txt", "new alpha\n"}, {"extra/e.txt", "echo\n"}});
  EXPECT_EQ(Run({"import", "update", "store.db:"}).status, 0);
  EXPECT_EQ(Run({"import", "update/", "store.db:pkg/v1"}).status, 0);
  std::map<std::string, std::string> expected = Sample();
  expected["a.txt"] = "new alpha\n";
  expected["extra/e.txt"] = "echo\n";
  expected["pkg/v1/a.txt"] = "new alpha\n";
  expected["pkg/v1/extra/e.txt"] = "echo\n";
  EXPECT_EQ(DatabaseRows(PathOf("store.db")), expected);
}

TEST_F(CliTreeCopyTest, ImportVerboseNamesEachFile) {
  MakeSampleTree("assets");
  const ToolRun run = Run({"import", "-v", "assets", "store.db:in/"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            "store.db:in/docs/deep/c.bin\nstore.db:in/docs/b.txt\n"
            "store.db:in/docs/\xc3\xbcn\xc3\xaf.txt\nstore.db:in/a.txt\n"
            "imported 4 files (43 bytes) from assets into store.db:in/\n");
}

TEST_F(CliTreeCopyTest, ImportIntoADirectoryRootCopiesEmptyDirectoriesToo) {
  MakeSampleTree("assets");
  std::filesystem::create_directories(PathOf("assets/empty/inner"));
  const ToolRun run = Run({"import", "assets", "out/copy/"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "imported 4 files (43 bytes) from assets into out/copy/\n");
  EXPECT_EQ(HostTreeFiles(PathOf("out/copy")), Sample());
  EXPECT_TRUE(std::filesystem::is_directory(PathOf("out/copy/empty/inner")));
}

TEST_F(CliTreeCopyTest, ImportSkipsWhatIsNotAFileAndItsOwnDatabase) {
  MakeSampleTree("assets");
  ASSERT_EQ(::mkfifo(PathOf("assets/pipe").c_str(), 0600), 0);
  std::filesystem::create_directory_symlink(PathOf("assets/docs"), PathOf("assets/loop"));
  const ToolRun run = Run({"import", "assets", "assets/store.db:"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err,
            "velfs: assets/loop: skipped: symbolic link to a directory, not followed\n"
            "velfs: assets/pipe: skipped: not a regular file\n");
  EXPECT_EQ(DatabaseRows(PathOf("assets/store.db")), Sample());
}

TEST_F(CliTreeCopyTest, ImportRefusalsWriteNothing) {
  MakeSampleZip("pack.zip");
  const std::string zip = ReadHostFile(PathOf("pack.zip"));
  MakeSampleTree("assets");
  WriteHostFile(PathOf("file.txt"), "x");
  MakeHostTree(PathOf("odd"), {{"ok.txt", "ok"}, {"back\\slash.txt", "?"}});
  MakeSampleDatabase("store.db");
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"import", "assets", "pack.zip:"}, "velfs: pack.zip: read-only ZIP archive\n"},
      {{"import", "nothere", "new.db:"}, "velfs: nothere: No such file or directory\n"},
      {{"import", "file.txt", "new.db:"},
       "velfs: file.txt: not a directory (put copies one file)\n"},
      {{"import", "odd", "new.db:"},
       "velfs: odd/back\\slash.txt: the name contains '\\', which velfs reads as '/'\n"},
      {{"import", "assets", "store.db:a.txt"}, "velfs: store.db:a.txt: not a directory\n"},
  };
  for (const auto& [args, message] : cases) {
    const ToolRun run = Run(args);
    EXPECT_EQ(run.status, 1) << args[1];
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.err, message);
  }
  EXPECT_FALSE(std::filesystem::exists(PathOf("new.db")));
  EXPECT_EQ(ReadHostFile(PathOf("pack.zip")), zip);
  EXPECT_EQ(DatabaseRows(PathOf("store.db")), Sample());
}

TEST_F(CliTreeCopyTest, ImportOfAFileBeyondThe32BitPositionsWritesNothing) {
  MakeSampleDatabase("store.db");
  const std::string before = ReadHostFile(PathOf("store.db"));
  MakeSampleTree("assets");
  WriteHostFile(PathOf("assets/huge.bin"), "");
  ASSERT_EQ(::truncate(PathOf("assets/huge.bin").c_str(), off_t{3} << 30), 0);
  const ToolRun run = Run({"import", "assets", "store.db:new/"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "velfs: assets/huge.bin: 3221225472 bytes is too large for a database root: the "
            "API's 32-bit file positions reach 2147483647 bytes\n");
  EXPECT_EQ(ReadHostFile(PathOf("store.db")), before);
}

// The import writes 48 files of 1 MiB in one transaction and prints each with -v; it is killed
// after the 16th. SQLite's page cache (400 pages of 8 KiB) has spilled by then, so the
// database file holds uncommitted pages and a hot journal; the next connection rolls the journal
// back, after which the file is byte for byte what it was.
TEST_F(CliTreeCopyTest, ImportKilledPartWayLeavesTheDatabaseAsItWas) {
  MakeSampleDatabase("store.db");
  const std::string before = ReadHostFile(PathOf("store.db"));
  std::map<std::string, std::string> files;
  for (int i = 0; i < 48; ++i) {
    files["big/" + std::to_string(100 + i) + ".bin"] =
        PseudoRandomBytes(1 << 20, static_cast<uint32_t>(i + 1));
  }
  MakeHostTree(PathOf("assets"), files);

  RunningTool tool({"import", "-v", "assets", "store.db:"}, PathOf());
  std::string line;
  for (int i = 0; i < 16; ++i) {
    ASSERT_TRUE(tool.ReadLine(&line)) << "the import ended after " << i << " files";
  }
  EXPECT_EQ(line, "store.db:big/115.bin");
  EXPECT_EQ(tool.KillAndWait(SIGKILL), SIGKILL);
  EXPECT_TRUE(std::filesystem::exists(PathOf("store.db-journal")));
  EXPECT_NE(ReadHostFile(PathOf("store.db")), before);  // uncommitted pages reached the file

  EXPECT_EQ(DatabaseRows(PathOf("store.db")), Sample());  // rolls the hot journal back
  EXPECT_FALSE(std::filesystem::exists(PathOf("store.db-journal")));
  EXPECT_EQ(ReadHostFile(PathOf("store.db")), before);
  const ToolRun list = Run({"ls", "store.db:"});
  EXPECT_EQ(list.out, "docs/\na.txt\n");
}

TEST_F(CliTreeCopyTest, ProgressBarOnlyOnATerminal) {
  MakeSampleTree("assets");
  const ToolRun run = RunToolOnTerminal({"import", "assets", "store.db:"}, PathOf());
  EXPECT_EQ(run.status, 0) << run.out;
  EXPECT_NE(run.out.find("] 4/4 files  43 B/43 B  "), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("\r\033[K"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("imported 4 files (43 bytes) from assets into store.db:\r\n"),
            std::string::npos)
      << run.out;
  const ToolRun exported = RunToolOnTerminal({"export", "store.db:", "out"}, PathOf());
  EXPECT_EQ(exported.status, 0) << exported.out;
  EXPECT_NE(exported.out.find("] 4/4 files"), std::string::npos) << exported.out;
  const ToolRun piped = Run({"export", "store.db:", "out2"});
  EXPECT_EQ(piped.err, "");
  EXPECT_EQ(piped.out.find('\r'), std::string::npos);
}

TEST_F(CliTreeCopyTest, ExportEveryKindOfRoot) {
  MakeSampleDatabase("store.db");
  MakeSampleZip("pack.zip");
  MakeSampleTree("tree");
  for (const char* root : {"store.db:", "pack.zip:", "tree"}) {
    const std::string out = std::string("out-") + root[0];
    const ToolRun run = Run({"export", root, out});
    EXPECT_EQ(run.status, 0) << root << run.err;
    EXPECT_EQ(run.out,
              std::string("exported 4 files (43 bytes) from ") + root + " into " + out + "\n");
    EXPECT_EQ(HostTreeFiles(PathOf(out)), Sample()) << root;
  }
}

TEST_F(CliTreeCopyTest, ExportOfADirectoryInsideARoot) {
  MakeSampleZip("pack.zip");
  std::filesystem::create_directory(PathOf("out"));
  const ToolRun run = Run({"export", "-v", "pack.zip:docs/", "out"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out,
            "out/deep/c.bin\nout/b.txt\nout/\xc3\xbcn\xc3\xaf.txt\n"
            "exported 3 files (37 bytes) from pack.zip:docs/ into out\n");
  const std::map<std::string, std::string> expected = {
      {"deep/c.bin", Sample().at("docs/deep/c.bin")},
      {"b.txt", "bravo\n"},
      {"\xc3\xbcn\xc3\xaf.txt", Sample().at("docs/\xc3\xbcn\xc3\xaf.txt")}};
  EXPECT_EQ(HostTreeFiles(PathOf("out")), expected);
}

TEST_F(CliTreeCopyTest, ExportNeverOverwritesAndChecksBeforeWriting) {
  MakeSampleDatabase("store.db");
  MakeHostTree(PathOf("out"), {{"docs/b.txt", "mine\n"}});
  const ToolRun run = Run({"export", "store.db:", "out"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: out/docs/b.txt: file exists, nothing exported\n");
  const std::map<std::string, std::string> untouched = {{"docs/b.txt", "mine\n"}};
  EXPECT_EQ(HostTreeFiles(PathOf("out")), untouched);
}

TEST_F(CliTreeCopyTest, ExportRefusesNamesThatLeaveTheTarget) {
  ASSERT_TRUE(WriteZip(PathOf("evil.zip"), {Stored("a/../../escaped.txt", "x")}));
  const ToolRun run = Run({"export", "evil.zip:", "out"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: evil.zip:a/..: unsafe name, nothing exported\n");
  EXPECT_FALSE(std::filesystem::exists(PathOf("escaped.txt")));
  EXPECT_FALSE(std::filesystem::exists(PathOf("out")));
}

TEST_F(CliTreeCopyTest, ExportFailures) {
  MakeSampleDatabase("store.db");
  WriteHostFile(PathOf("file.txt"), "x");
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"export", "store.db:a.txt", "out"},
       "velfs: store.db:a.txt: not a directory (get copies one file)\n"},
      {{"export", "store.db:nope/", "out"}, "velfs: store.db:nope/: no such directory\n"},
      {{"export", "missing.db:", "out"}, "velfs: missing.db: root not found\n"},
      {{"export", "store.db:", "file.txt"}, "velfs: file.txt: not a directory\n"},
      {{"export", "store.db:", "file.txt/out"}, "velfs: file.txt/out: Not a directory\n"},
  };
  for (const auto& [args, message] : cases) {
    const ToolRun run = Run(args);
    EXPECT_EQ(run.status, 1) << args[1];
    EXPECT_EQ(run.err, message);
  }
  EXPECT_FALSE(std::filesystem::exists(PathOf("out")));
}

}  // namespace
}  // namespace velfs::testing
