// put and get: host files and standard input/output into and out of the three kinds of root,
// the target-directory form, and every failure, which leaves the database's rows and bytes as
// they were (a put into a database root is one transaction).
#include <gtest/gtest.h>
#include <unistd.h>

#include "cli_test_support.h"

namespace velfs::testing {
namespace {

using CliPutGetTest = CliTest;

// A sparse host file of `size` bytes (no disk blocks): sizes beyond the database limits.
void MakeSparseFile(const std::string& path, off_t size) {
  WriteHostFile(path, "");
  ASSERT_EQ(::truncate(path.c_str(), size), 0);
}

TEST_F(CliPutGetTest, PutStoresAHostFileAsOneRow) {
  MakeSampleDatabase("store.db");
  WriteHostFile(PathOf("new.bin"), std::string("\0bytes\xff", 7));
  const ToolRun run = Run({"put", "new.bin", "store.db:docs/new.bin"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "");
  std::map<std::string, std::string> expected = Sample();
  expected["docs/new.bin"] = std::string("\0bytes\xff", 7);
  EXPECT_EQ(DatabaseRows(PathOf("store.db")), expected);
}

TEST_F(CliPutGetTest, PutIntoADirectoryKeepsTheSourceName) {
  MakeSampleDatabase("store.db");
  WriteHostFile(PathOf("note.txt"), "note\n");
  EXPECT_EQ(Run({"put", "note.txt", "store.db:docs/"}).status, 0);
  EXPECT_EQ(Run({"put", "note.txt", "store.db:docs/deep"}).status, 0);  // an existing directory
  EXPECT_EQ(Run({"put", PathOf("note.txt"), "store.db:"}).status, 0);
  const auto rows = DatabaseRows(PathOf("store.db"));
  EXPECT_EQ(rows.at("docs/note.txt"), "note\n");
  EXPECT_EQ(rows.at("docs/deep/note.txt"), "note\n");
  EXPECT_EQ(rows.at("note.txt"), "note\n");
}

TEST_F(CliPutGetTest, PutReplacesAnExistingFile) {
  MakeSampleDatabase("store.db");
  WriteHostFile(PathOf("short.txt"), "z");
  EXPECT_EQ(Run({"put", "short.txt", "store.db:a.txt"}).status, 0);
  EXPECT_EQ(DatabaseRows(PathOf("store.db")).at("a.txt"), "z");
}

TEST_F(CliPutGetTest, PutFromStandardInputAndAnEmptyFile) {
  const ToolRun run = Run({"put", "-", "new.db:in/stdin.txt"}, "from standard input\n");
  EXPECT_EQ(run.status, 0) << run.err;
  WriteHostFile(PathOf("empty"), "");
  EXPECT_EQ(Run({"put", "empty", "new.db:"}).status, 0);
  const std::map<std::string, std::string> expected = {{"in/stdin.txt", "from standard input\n"},
                                                       {"empty", ""}};
  EXPECT_EQ(DatabaseRows(PathOf("new.db")), expected);
  EXPECT_EQ(Run({"cat", "new.db:empty"}).out, "");
}

TEST_F(CliPutGetTest, PutIntoADirectoryRootMakesMissingDirectories) {
  std::filesystem::create_directory(PathOf("tree"));
  WriteHostFile(PathOf("a.txt"), "alpha\n");
  EXPECT_EQ(Run({"put", "a.txt", "tree/x/y/a.txt"}).status, 0);
  EXPECT_EQ(Run({"put", "-", "tree/x/b.txt"}, "bravo\n").status, 0);
  const std::map<std::string, std::string> expected = {{"x/y/a.txt", "alpha\n"},
                                                       {"x/b.txt", "bravo\n"}};
  EXPECT_EQ(HostTreeFiles(PathOf("tree")), expected);  // no temporary file left
}

TEST_F(CliPutGetTest, PutBelowAFileOfADirectoryRootNamesTheFile) {
  MakeSampleTree("tree");
  const ToolRun run = Run({"put", "-", "tree/a.txt/b.txt"}, "x");
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "velfs: tree/a.txt/b.txt: cannot create the file: tree/a.txt is not a directory\n");
  EXPECT_EQ(HostTreeFiles(PathOf("tree")), Sample());
}

TEST_F(CliPutGetTest, FilesOf2GibibytesAndMoreInADirectoryRootShowTheirHostSize) {
  std::filesystem::create_directory(PathOf("tree"));
  MakeSparseFile(PathOf("tree/huge.bin"), off_t{3} << 30);
  // velfsTell answers -1 beyond the 32-bit positions; the size comes from the host.
  EXPECT_EQ(Run({"ls", "-l", "tree"}).out, "file 3221225472 huge.bin\n");
  EXPECT_EQ(
      Run({"stat", "tree/huge.bin"}).out,
      "path: tree/huge.bin\nkind: file\nsize: 3221225472\nroot: tree/\nback-end: directory\n");
}

TEST_F(CliPutGetTest, NewDatabaseNeedsAnExistingDirectory) {
  WriteHostFile(PathOf("a.txt"), "alpha\n");
  const ToolRun run = Run({"put", "a.txt", "nodir/new.db:a.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "velfs: nodir/new.db: cannot create a database here: directory nodir not found\n");
  EXPECT_FALSE(std::filesystem::exists(PathOf("nodir")));
}

TEST_F(CliPutGetTest, PutIntoAZipArchiveIsRefused) {
  MakeSampleZip("pack.zip");
  const std::string before = ReadHostFile(PathOf("pack.zip"));
  WriteHostFile(PathOf("a.txt"), "alpha\n");
  const ToolRun run = Run({"put", "a.txt", "pack.zip:docs/a.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: pack.zip:docs/a.txt: read-only ZIP archive\n");
  EXPECT_EQ(ReadHostFile(PathOf("pack.zip")), before);
}

TEST_F(CliPutGetTest, PutOfAMissingSourceCreatesNoDatabase) {
  const ToolRun run = Run({"put", "missing.txt", "new.db:a.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: missing.txt: No such file or directory\n");
  EXPECT_FALSE(std::filesystem::exists(PathOf("new.db")));
}

TEST_F(CliPutGetTest, PutOfADirectoryIsRefused) {
  std::filesystem::create_directory(PathOf("folder"));
  const ToolRun run = Run({"put", "folder", "new.db:"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: folder: is a directory\n");
}

TEST_F(CliPutGetTest, PutOfStandardInputNeedsAFileName) {
  MakeSampleDatabase("store.db");
  const ToolRun run = Run({"put", "-", "store.db:docs"}, "x");
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err,
            "velfs: store.db:docs: is a directory: name the file to write standard input to\n");
}

TEST_F(CliPutGetTest, PutOntoADirectoryPathIsRefused) {
  MakeSampleDatabase("store.db");
  WriteHostFile(PathOf("deep"), "x");
  const ToolRun run = Run({"put", "deep", "store.db:docs/"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: store.db:docs/deep: is a directory\n");
}

TEST_F(CliPutGetTest, FileBeyondThe32BitPositionsIsRefusedBeforeAnyChange) {
  MakeSampleDatabase("store.db");
  const std::string before = ReadHostFile(PathOf("store.db"));
  MakeSparseFile(PathOf("huge.bin"), off_t{3} << 30);
  const ToolRun run = Run({"put", "huge.bin", "store.db:huge.bin"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "velfs: huge.bin: 3221225472 bytes is too large for a database root: the API's "
            "32-bit file positions reach 2147483647 bytes\n");
  EXPECT_EQ(ReadHostFile(PathOf("store.db")), before);
  const ToolRun fresh = Run({"put", "huge.bin", "fresh.db:"});
  EXPECT_EQ(fresh.status, 1);
  EXPECT_FALSE(std::filesystem::exists(PathOf("fresh.db")));  // the new database is removed
}

TEST_F(CliPutGetTest, FileBeyondSqlitesLargestRowLeavesTheOldFile) {
  MakeSampleDatabase("store.db");
  MakeSparseFile(PathOf("big.bin"), 1500000000);
  // The old a.txt is deleted inside the transaction before the new row is refused: the rollback
  // must bring it back.
  const ToolRun run = Run({"put", "big.bin", "store.db:a.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "velfs: store.db:a.txt: the database refused 1500000000 bytes: more than SQLite "
            "stores in one row (1000000000 bytes unless SQLite was built with a larger "
            "SQLITE_MAX_LENGTH)\n");
  EXPECT_EQ(DatabaseRows(PathOf("store.db")), Sample());
}

TEST_F(CliPutGetTest, DatabaseLockedForWritingIsReportedAndLeftAsItWas) {
  MakeSampleDatabase("store.db");
  WriteHostFile(PathOf("new.txt"), "new\n");
  {
    SecondConnection other(PathOf("store.db"));
    ASSERT_TRUE(other.Exec("BEGIN IMMEDIATE;"));  // others may still read
    const ToolRun run = Run({"put", "new.txt", "store.db:a.txt"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err,
              "velfs: store.db:a.txt: cannot replace the file: the database may be locked by "
              "another program, or the disk full\n");
    const ToolRun added = Run({"put", "new.txt", "store.db:new.txt"});
    EXPECT_EQ(added.status, 1);
    EXPECT_EQ(added.err,
              "velfs: store.db:new.txt: the database refused the file: the database may be "
              "locked by another program, or the disk full\n");
    ASSERT_TRUE(other.Exec("COMMIT;"));
  }
  EXPECT_EQ(DatabaseRows(PathOf("store.db")), Sample());
}

TEST_F(CliPutGetTest, CommitRefusedWhileAnotherProgramReadsLeavesNothing) {
  MakeSampleDatabase("store.db");
  WriteHostFile(PathOf("new.txt"), "new\n");
  {
    // A read transaction of another connection: the tool's writes are allowed into its own
    // transaction, but the commit cannot get the exclusive lock.
    SecondConnection other(PathOf("store.db"));
    ASSERT_TRUE(other.Exec("BEGIN;"));
    ASSERT_EQ(other.RowCount(), 4);
    const ToolRun run = Run({"put", "new.txt", "store.db:a.txt"});
    EXPECT_EQ(run.status, 1);
    EXPECT_EQ(run.err,
              "velfs: store.db: the commit failed and nothing was changed: the database may be "
              "locked by another program, or the disk full\n");
    ASSERT_TRUE(other.Exec("COMMIT;"));
  }
  EXPECT_EQ(DatabaseRows(PathOf("store.db")), Sample());
  EXPECT_FALSE(std::filesystem::exists(PathOf("store.db-journal")));
}

TEST_F(CliPutGetTest, DatabaseLockedExclusivelyCannotBeOpened) {
  MakeSampleDatabase("store.db");
  WriteHostFile(PathOf("new.txt"), "new\n");
  SecondConnection other(PathOf("store.db"));
  ASSERT_TRUE(other.Exec("BEGIN EXCLUSIVE;"));
  const ToolRun run = Run({"put", "new.txt", "store.db:a.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "velfs: store.db: the SQLite database cannot be opened (locked by another program?)\n");
  ASSERT_TRUE(other.Exec("COMMIT;"));
  EXPECT_EQ(DatabaseRows(PathOf("store.db")), Sample());
}

TEST_F(CliPutGetTest, GetCopiesAFileToTheHost) {
  MakeSampleDatabase("store.db");
  const ToolRun run = Run({"get", "store.db:docs/deep/c.bin", "c.bin"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(ReadHostFile(PathOf("c.bin")), Sample().at("docs/deep/c.bin"));
  std::filesystem::create_directory(PathOf("into"));
  EXPECT_EQ(Run({"get", "store.db:a.txt", "into"}).status, 0);
  EXPECT_EQ(ReadHostFile(PathOf("into/a.txt")), "alpha\n");
  EXPECT_EQ(HostTreeFiles(PathOf("into")).size(), 1u);  // no temporary file left
}

TEST_F(CliPutGetTest, GetToStandardOutputFromEveryBackEnd) {
  MakeSampleDatabase("store.db");
  MakeSampleZip("pack.zip");
  MakeSampleTree("tree");
  for (const char* root : {"store.db:", "pack.zip:", "tree/"}) {
    const ToolRun run = Run({"get", std::string(root) + "docs/deep/c.bin", "-"});
    EXPECT_EQ(run.status, 0) << root << run.err;
    EXPECT_EQ(run.out, Sample().at("docs/deep/c.bin")) << root;
  }
}

TEST_F(CliPutGetTest, GetReplacesAnExistingHostFile) {
  MakeSampleDatabase("store.db");
  WriteHostFile(PathOf("a.txt"), "old and longer\n");
  EXPECT_EQ(Run({"get", "store.db:a.txt", "a.txt"}).status, 0);
  EXPECT_EQ(ReadHostFile(PathOf("a.txt")), "alpha\n");
}

TEST_F(CliPutGetTest, GetFailures) {
  MakeSampleDatabase("store.db");
  ToolRun run = Run({"get", "store.db:nope", "x"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: store.db:nope: no such file\n");
  run = Run({"get", "store.db:docs", "x"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: store.db:docs: is a directory (export copies a tree)\n");
  run = Run({"get", "store.db:a.txt", "no/such/dir/a.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: no/such/dir/a.txt: No such file or directory\n");
  EXPECT_FALSE(std::filesystem::exists(PathOf("x")));
}

}  // namespace
}  // namespace velfs::testing
