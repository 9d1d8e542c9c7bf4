// Contention (issue 8, Part 3.1): two processes with storages on one database file. While one
// holds a transaction with changes in it (SQLite's RESERVED lock), the other's reads work and see
// the committed state, and every operation that would write answers false at once (no busy
// handler) and changes nothing; after the commit everything of both is there. Both directions:
// the child velfs_crash_writer holds and the test tries, then the test holds and the child tries.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdint>
#include <map>
#include <string>

#include "child_process.h"
#include "reliability_support.h"
#include "test_support.h"
#include "velfs.h"

namespace velfs::reliability {
namespace {

// Writes `content` to `path` of the root from position 0; true when all of it was written.
bool PutFile(DirHandle* dir, const char* path, const std::string& content) {
  FileHandle* file = velfsCreateFileIndir(dir, path, 1);
  if (file == nullptr) return false;
  const bool written = velfsWrite(file, content.data(), content.size()) == content.size();
  velfsCloseFile(file);
  return written;
}

class ContentionTest : public velfs::testing::ScratchDirTest {
 protected:
  void SetUp() override {
    velfs::testing::ScratchDirTest::SetUp();
    database_ = PathOf("shared.db");
    DirHandle* dir = velfsOpenDir(database_.c_str());
    ASSERT_NE(dir, nullptr);
    ASSERT_TRUE(PutFile(dir, "base/a.txt", "A1"));
    ASSERT_TRUE(PutFile(dir, "base/gone.txt", "G"));
    velfsCloseDir(dir);
  }

  // The content of `path` in the root, "<missing>" when it cannot be opened.
  static std::string Read(DirHandle* dir, const char* path) {
    bool exists = false;
    if (!velfsIsFileExist(dir, path, &exists) || !exists) return "<missing>";
    FileHandle* file = velfsCreateFileIndir(dir, path, 0);
    if (file == nullptr) return "<missing>";
    std::string content;
    char buffer[256];
    for (uint64_t count; (count = velfsRead(file, buffer, sizeof buffer)) > 0;) {
      content.append(buffer, static_cast<std::size_t>(count));
    }
    velfsCloseFile(file);
    return content;
  }

  std::string database_;
  const std::map<std::string, std::string> initial_ = {{"base/a.txt", "A1"},
                                                       {"base/gone.txt", "G"}};
};

TEST_F(ContentionTest, WhileAnotherProcessHoldsATransactionWritesFailAndLoseNothing) {
  ChildProcess holder(CrashWriterPath(), {"hold", database_});
  ASSERT_TRUE(holder.running());
  ASSERT_EQ(holder.Receive(1), "H");  // its transaction holds changes now

  DirHandle* dir = velfsOpenDir(database_.c_str());
  ASSERT_NE(dir, nullptr);
  // Reads work and see the committed state.
  EXPECT_EQ(Read(dir, "base/a.txt"), "A1");
  EXPECT_EQ(Read(dir, "base/gone.txt"), "G");
  EXPECT_EQ(Read(dir, "held/x.txt"), "<missing>");
  bool exists = false;
  EXPECT_TRUE(velfsIsDirectoryExist(dir, "base/", &exists));
  EXPECT_TRUE(exists);
  // Every write answers false (0 for counts).
  FileHandle* created = velfsCreateFileIndir(dir, "mine/new.txt", 1);
  ASSERT_NE(created, nullptr);  // a database file opens without touching a row (Part 3.2)
  EXPECT_EQ(velfsWrite(created, "new", 3), 0u);
  velfsCloseFile(created);
  FileHandle* existing = velfsCreateFileIndir(dir, "base/a.txt", 3);
  ASSERT_NE(existing, nullptr);
  EXPECT_EQ(velfsWrite(existing, "XY", 2), 0u);
  EXPECT_FALSE(velfsResize(existing, 0));
  velfsCloseFile(existing);
  EXPECT_FALSE(velfsDeleteFile(dir, "base/a.txt"));
  EXPECT_FALSE(velfsDeleteDirectory(dir, "base/"));
  EXPECT_FALSE(velfsRenameFile(dir, "base/a.txt", "base/b.txt"));
  EXPECT_FALSE(velfsCopyFile(dir, "base/a.txt", "mine/copy.txt", false));
  EXPECT_FALSE(velfsMoveFile(dir, "base/gone.txt", "mine/moved.txt", false));
  ASSERT_TRUE(velfsBeginTrans(dir));  // a deferred BEGIN takes no lock
  created = velfsCreateFileIndir(dir, "mine/in-transaction.txt", 1);
  ASSERT_NE(created, nullptr);
  EXPECT_EQ(velfsWrite(created, "t", 1), 0u);
  velfsCloseFile(created);
  velfsCommitTrans(dir);
  // Nothing was lost or half done: the committed rows are as they were.
  EXPECT_EQ(Read(dir, "base/a.txt"), "A1");
  EXPECT_EQ(Read(dir, "base/gone.txt"), "G");
  EXPECT_EQ(ViewDatabase(database_).rows, initial_);

  // The holder commits; everything it changed is there, and our writes now succeed.
  ASSERT_TRUE(holder.Send("c"));
  EXPECT_EQ(holder.Receive(1), "1");
  const int status = holder.Wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
  EXPECT_EQ(Read(dir, "base/a.txt"), "A2");
  EXPECT_EQ(Read(dir, "held/x.txt"), "held");
  EXPECT_EQ(Read(dir, "base/gone.txt"), "<missing>");
  EXPECT_TRUE(PutFile(dir, "mine/new.txt", "new"));
  velfsCloseDir(dir);
  const DatabaseView view = ViewDatabase(database_);
  EXPECT_EQ(view.integrity, "ok");
  EXPECT_EQ(view.rows, (std::map<std::string, std::string>{
                           {"base/a.txt", "A2"}, {"held/x.txt", "held"}, {"mine/new.txt", "new"}}));
}

TEST_F(ContentionTest, WhileThisProcessHoldsATransactionAnotherProcessWritesNothing) {
  DirHandle* dir = velfsOpenDir(database_.c_str());
  ASSERT_NE(dir, nullptr);
  ASSERT_TRUE(velfsBeginTrans(dir));
  ASSERT_TRUE(PutFile(dir, "mine/held.txt", "mine"));

  // Seven write operations of the other process, each answering '0', and its read of base/a.txt.
  {
    ChildProcess attempt(CrashWriterPath(), {"attempt", database_});
    ASSERT_TRUE(attempt.running());
    EXPECT_EQ(attempt.ReceiveAll(), "0000000A1");
    const int status = attempt.Wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
  }
  ASSERT_TRUE(velfsCommitTrans(dir));
  EXPECT_EQ(Read(dir, "mine/held.txt"), "mine");
  EXPECT_EQ(Read(dir, "c/new.txt"), "<missing>");

  // With no transaction open every one of them succeeds.
  {
    ChildProcess attempt(CrashWriterPath(), {"attempt", database_});
    ASSERT_TRUE(attempt.running());
    EXPECT_EQ(attempt.ReceiveAll(), "1111111A");
    const int status = attempt.Wait();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "wait status " << status;
  }
  velfsCloseDir(dir);
  const DatabaseView view = ViewDatabase(database_);
  EXPECT_EQ(view.integrity, "ok");
  EXPECT_EQ(view.rows, (std::map<std::string, std::string>{{"base/a.txt", "A"},
                                                           {"c/new.txt", "new"},
                                                           {"d/moved.txt", "A"},
                                                           {"mine/held.txt", "mine"}}));
}

}  // namespace
}  // namespace velfs::reliability
