// cp, mv, rm and rmdir: the library's own operations inside one database root (each command one
// transaction), cp streaming between roots, and the refusals for ZIP archives, directory roots,
// missing files and existing targets, which change nothing.
#include <gtest/gtest.h>

#include "cli_test_support.h"

namespace velfs::testing {
namespace {

class CliChangeTest : public CliTest {
 protected:
  void SetUp() override {
    CliTest::SetUp();
    MakeSampleDatabase("store.db");
  }
  std::map<std::string, std::string> Rows() const { return DatabaseRows(PathOf("store.db")); }
  // The sample with `changes` applied; an empty value removes the file.
  static std::map<std::string, std::string> SampleWith(
      const std::map<std::string, const char*>& changes) {
    std::map<std::string, std::string> files = Sample();
    for (const auto& [path, bytes] : changes) {
      if (bytes == nullptr) {
        files.erase(path);
      } else {
        files[path] = bytes;
      }
    }
    return files;
  }
};

TEST_F(CliChangeTest, CpInsideADatabaseRoot) {
  const ToolRun run = Run({"cp", "store.db:a.txt", "store.db:docs/copy.txt"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(Rows(), SampleWith({{"docs/copy.txt", "alpha\n"}}));
  EXPECT_EQ(Run({"cp", "store.db:docs/b.txt", "store.db:docs/deep/"}).status, 0);
  EXPECT_EQ(Rows().at("docs/deep/b.txt"), "bravo\n");
}

TEST_F(CliChangeTest, CpOverwritesUnlessNoClobber) {
  EXPECT_EQ(Run({"cp", "store.db:a.txt", "store.db:docs/b.txt"}).status, 0);
  EXPECT_EQ(Rows().at("docs/b.txt"), "alpha\n");
  const ToolRun run = Run({"cp", "-n", "store.db:docs/deep/c.bin", "store.db:a.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: store.db:a.txt: file exists\n");
  EXPECT_EQ(Rows().at("a.txt"), "alpha\n");
}

TEST_F(CliChangeTest, CpBetweenRootsStreamsTheBytes) {
  MakeSampleZip("pack.zip");
  EXPECT_EQ(Run({"cp", "pack.zip:docs/deep/c.bin", "other.db:bin/c.bin"}).status, 0);
  const std::map<std::string, std::string> expected = {
      {"bin/c.bin", Sample().at("docs/deep/c.bin")}};
  EXPECT_EQ(DatabaseRows(PathOf("other.db")), expected);
  std::filesystem::create_directory(PathOf("tree"));
  EXPECT_EQ(Run({"cp", "store.db:docs/b.txt", "tree/"}).status, 0);
  EXPECT_EQ(ReadHostFile(PathOf("tree/b.txt")), "bravo\n");
  EXPECT_EQ(Run({"cp", "tree/b.txt", "store.db:docs/deep/b2.txt"}).status, 0);
  EXPECT_EQ(Rows().at("docs/deep/b2.txt"), "bravo\n");
  EXPECT_EQ(Run({"cp", "tree/b.txt", "tree/copy/b.txt"}).status, 0);  // inside a directory root
  EXPECT_EQ(ReadHostFile(PathOf("tree/copy/b.txt")), "bravo\n");
}

TEST_F(CliChangeTest, CpFailures) {
  MakeSampleZip("pack.zip");
  const std::string zip = ReadHostFile(PathOf("pack.zip"));
  ToolRun run = Run({"cp", "store.db:a.txt", "pack.zip:a.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: pack.zip:a.txt: read-only ZIP archive\n");
  run = Run({"cp", "store.db:nope.txt", "store.db:x.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: store.db:nope.txt: no such file\n");
  run = Run({"cp", "store.db:docs", "store.db:x"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: store.db:docs: is a directory (only files are copied and moved)\n");
  EXPECT_EQ(Rows(), Sample());
  EXPECT_EQ(ReadHostFile(PathOf("pack.zip")), zip);
}

TEST_F(CliChangeTest, MvInsideADatabaseRoot) {
  const ToolRun run = Run({"mv", "store.db:a.txt", "store.db:docs/deep/a.txt"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(Rows(), SampleWith({{"a.txt", nullptr}, {"docs/deep/a.txt", "alpha\n"}}));
  EXPECT_EQ(Run({"mv", "store.db:docs/b.txt", "store.db:"}).status, 0);
  EXPECT_EQ(Rows().at("b.txt"), "bravo\n");
  EXPECT_EQ(Rows().count("docs/b.txt"), 0u);
}

TEST_F(CliChangeTest, MvNoClobberKeepsBothFiles) {
  const ToolRun run = Run({"mv", "-n", "store.db:a.txt", "store.db:docs/b.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: store.db:docs/b.txt: file exists\n");
  EXPECT_EQ(Rows(), Sample());
  EXPECT_EQ(Run({"mv", "store.db:a.txt", "store.db:docs/b.txt"}).status, 0);
  EXPECT_EQ(Rows(), SampleWith({{"a.txt", nullptr}, {"docs/b.txt", "alpha\n"}}));
}

TEST_F(CliChangeTest, MvOutsideOneDatabaseRootIsRefused) {
  MakeSampleZip("pack.zip");
  MakeSampleTree("tree");
  ToolRun run = Run({"mv", "store.db:a.txt", "other.db:a.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: store.db:a.txt: mv works inside one database root; use cp, then rm\n");
  EXPECT_FALSE(std::filesystem::exists(PathOf("other.db")));
  run = Run({"mv", "pack.zip:a.txt", "pack.zip:b.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: pack.zip:a.txt: read-only ZIP archive\n");
  run = Run({"mv", "tree/a.txt", "tree/b.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "velfs: tree/a.txt: cannot move files in a directory root (velfs deletes, copies and "
            "moves files only inside database roots)\n");
  EXPECT_EQ(Rows(), Sample());
  EXPECT_EQ(HostTreeFiles(PathOf("tree")), Sample());
}

TEST_F(CliChangeTest, RmDeletesFilesAndGoesOnAfterAFailure) {
  const ToolRun run = Run({"rm", "store.db:a.txt", "store.db:nope.txt", "store.db:docs/b.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "velfs: store.db:nope.txt: no such file\n");
  EXPECT_EQ(Rows(), SampleWith({{"a.txt", nullptr}, {"docs/b.txt", nullptr}}));
}

TEST_F(CliChangeTest, RmRefusals) {
  MakeSampleZip("pack.zip");
  MakeSampleTree("tree");
  ToolRun run = Run({"rm", "store.db:docs"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: store.db:docs: is a directory (rmdir removes a directory)\n");
  run = Run({"rm", "pack.zip:a.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err, "velfs: pack.zip:a.txt: read-only ZIP archive\n");
  run = Run({"rm", "tree/a.txt"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "velfs: tree/a.txt: cannot delete files in a directory root (velfs deletes, copies "
            "and moves files only inside database roots)\n");
  EXPECT_EQ(Rows(), Sample());
  EXPECT_EQ(HostTreeFiles(PathOf("tree")), Sample());
}

TEST_F(CliChangeTest, LockedDatabaseRefusesEveryChange) {
  MakeSampleTree("assets");
  SecondConnection other(PathOf("store.db"));
  ASSERT_TRUE(other.Exec("BEGIN IMMEDIATE;"));  // another writer; reading stays possible
  const std::string cause = ": the database may be locked by another program, or the disk full\n";
  const std::pair<std::vector<std::string>, std::string> cases[] = {
      {{"cp", "store.db:a.txt", "store.db:b.txt"}, "velfs: store.db:b.txt: copy failed" + cause},
      {{"mv", "store.db:a.txt", "store.db:b.txt"}, "velfs: store.db:b.txt: move failed" + cause},
      {{"rm", "store.db:a.txt"}, "velfs: store.db:a.txt: cannot delete" + cause},
      {{"rmdir", "store.db:docs"},
       "velfs: store.db:docs/deep/c.bin: cannot delete, nothing was removed" + cause},
      {{"import", "assets", "store.db:"},
       "velfs: store.db:docs/deep/c.bin: cannot replace the file" + cause},
  };
  for (const auto& [args, message] : cases) {
    const ToolRun run = Run(args);
    EXPECT_EQ(run.status, 1) << args[0];
    EXPECT_EQ(run.err, message);
  }
  ASSERT_TRUE(other.Exec("COMMIT;"));
  EXPECT_EQ(Rows(), Sample());
}

TEST_F(CliChangeTest, RmdirRemovesTheTreeAndNothingElse) {
  // Rows that SQL LIKE would also match for "docs/": another letter case and a '_' wildcard.
  {
    SecondConnection connection(PathOf("store.db"));
    const std::string keep = "keep\n";
    ASSERT_TRUE(connection.InsertRow("x.txt", "DOCS/", &keep));
    ASSERT_TRUE(connection.InsertRow("y.txt", "d_cs/", &keep));
    ASSERT_TRUE(connection.InsertRow("z.txt", "docsy/", &keep));
  }
  const ToolRun run = Run({"rmdir", "store.db:docs"});
  EXPECT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "");
  const std::map<std::string, std::string> expected = {{"a.txt", "alpha\n"},
                                                       {"DOCS/x.txt", "keep\n"},
                                                       {"d_cs/y.txt", "keep\n"},
                                                       {"docsy/z.txt", "keep\n"}};
  EXPECT_EQ(Rows(), expected);
}

TEST_F(CliChangeTest, RmdirRefusals) {
  MakeSampleZip("pack.zip");
  MakeSampleTree("tree");
  const std::pair<const char*, const char*> cases[] = {
      {"store.db:",
       "velfs: store.db: cannot remove the root directory: remove its files with "
       "rm, or delete the database\n"},
      {"store.db:nope/", "velfs: store.db:nope/: no such directory\n"},
      {"store.db:a.txt", "velfs: store.db:a.txt: not a directory (rm deletes a file)\n"},
      {"pack.zip:docs", "velfs: pack.zip:docs: read-only ZIP archive\n"},
      {"tree/docs",
       "velfs: tree/docs: cannot remove directories in a directory root (velfs "
       "deletes, copies and moves files only inside database roots)\n"},
  };
  for (const auto& [path, message] : cases) {
    const ToolRun run = Run({"rmdir", path});
    EXPECT_EQ(run.status, 1) << path;
    EXPECT_EQ(run.err, message);
  }
  EXPECT_EQ(Rows(), Sample());
  EXPECT_EQ(HostTreeFiles(PathOf("tree")), Sample());
}

}  // namespace
}  // namespace velfs::testing
