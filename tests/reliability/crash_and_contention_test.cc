// Two processes on one database file. A writer killed with SIGKILL at random moments leaves every
// committed transaction whole and nothing of the one it was in; while one process holds a
// transaction, the other reads the committed state and every change it tries fails at once.
#include <chrono>
#include <cstring>
#include <random>
#include <thread>

#include "process.h"
#include "support.h"
#include "transactions.h"

namespace velfs_test {
namespace {

// PRAGMA integrity_check's first answer and every row, as a second connection sees them; the
// connection rolls back a hot journal that a killed writer left.
std::pair<std::string, std::map<std::string, std::string>> View(const std::string& database) {
  SecondConnection other(database);
  std::pair<std::string, std::map<std::string, std::string>> view;
  sqlite3_stmt* statement = nullptr;
  auto text = [&](int column) {
    const char* bytes = static_cast<const char*>(sqlite3_column_blob(statement, column));
    return std::string(bytes == nullptr ? "" : bytes,
                       static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
  };
  sqlite3_prepare_v2(other.db(), "PRAGMA integrity_check", -1, &statement, nullptr);
  if (sqlite3_step(statement) == SQLITE_ROW) view.first = text(0);
  sqlite3_finalize(statement);
  sqlite3_prepare_v2(other.db(), "SELECT Path || FileName, Content FROM FileStorage", -1,
                     &statement, nullptr);
  while (sqlite3_step(statement) == SQLITE_ROW) view.second[text(0)] = text(1);
  sqlite3_finalize(statement);
  return view;
}

using CrashTest = ScratchTest;

TEST_F(CrashTest, KilledWritersLeaveEveryCommittedTransactionWholeAndNothingElse) {
  const std::string database = PathOf("crash.db");
  std::mt19937 random(20240839);  // reproducible kill moments
  std::uniform_int_distribution<long> delay(0, 60000);
  uint32_t committed = 0;
  int hotJournals = 0;
  for (int kill = 1; kill <= 200; ++kill) {
    SCOPED_TRACE("kill " + std::to_string(kill));
    {
      ChildProcess writer(VELFS_DATABASE_WRITER, {"write", database,
                                                  std::to_string(committed + 1)});
      ASSERT_TRUE(writer.running());
      std::this_thread::sleep_for(std::chrono::microseconds(delay(random)));
      writer.Kill();
      ASSERT_TRUE(writer.WaitKilled()) << "the writer ended by itself";
      for (std::string report; (report = writer.Receive(4)).size() == 4;) {
        uint32_t index = 0;
        std::memcpy(&index, report.data(), 4);
        ASSERT_EQ(index, committed + 1);
        committed = index;
      }
    }
    std::error_code none;
    hotJournals += std::filesystem::file_size(database + "-journal", none) > 0 && !none;
    if (kill % 2 == 0 && std::filesystem::exists(database)) {
      // The library opens the database first and rolls the hot journal back itself.
      const std::string counter = ReadFullPath(database + ":counter.txt");
      EXPECT_TRUE(counter == std::to_string(committed) || counter == std::to_string(committed + 1) ||
                  (committed == 0 && counter.empty()))
          << counter << " after commit " << committed;
    }
    const auto [integrity, rows] = View(database);
    ASSERT_EQ(integrity, "ok");
    if (rows == StateAfter(committed + 1)) ++committed;  // committed, killed before reporting
    ASSERT_EQ(rows.size(), StateAfter(committed).size()) << "after commit " << committed;
    ASSERT_TRUE(rows == StateAfter(committed)) << "after commit " << committed;
  }
  EXPECT_GT(committed, 0u) << "every kill came before the first commit";
  EXPECT_GT(hotJournals, 0) << "no kill fell inside a transaction";
}

using ContentionTest = ScratchTest;

TEST_F(ContentionTest, AHeldTransactionLetsOthersReadAndFailsTheirChangesAtOnce) {
  const std::string database = PathOf("shared.db");
  DirHandle* dir = velfsOpenDir(database.c_str());
  ASSERT_NE(dir, nullptr);
  FileHandle* base = velfsCreateFileIndir(dir, "base.txt", 1);
  ASSERT_EQ(velfsWrite(base, "base", 4), 4u);

  ChildProcess holder(VELFS_DATABASE_WRITER, {"hold", database});
  ASSERT_EQ(holder.Receive(1), "H");
  EXPECT_EQ(ReadFullPath(database + ":base.txt"), "base");
  bool exists = true;
  EXPECT_TRUE(velfsIsFileExist(dir, "held.txt", &exists));
  EXPECT_FALSE(exists);
  EXPECT_EQ(velfsWrite(base, "!", 1), 0u);
  EXPECT_FALSE(velfsResize(base, 1));
  EXPECT_FALSE(velfsCopyFile(dir, "base.txt", "copy.txt", true));
  EXPECT_FALSE(velfsDeleteFile(dir, "base.txt"));
  ASSERT_TRUE(velfsBeginTrans(dir));
  FileHandle* mine = velfsCreateFileIndir(dir, "mine.txt", 1);
  EXPECT_EQ(velfsWrite(mine, "mine", 4), 0u);
  velfsCloseFile(mine);
  EXPECT_TRUE(velfsCommitTrans(dir));  // nothing was written in it
  velfsCloseFile(base);

  ASSERT_TRUE(holder.Send("g"));
  EXPECT_EQ(holder.Receive(1), "1");
  EXPECT_EQ(ReadFullPath(database + ":held.txt"), "held");
  EXPECT_EQ(ReadFullPath(database + ":base.txt"), "changed");
  base = velfsCreateFileIndir(dir, "base.txt", 3);
  ASSERT_EQ(velfsSeek(base, 0, 2), 7);
  EXPECT_EQ(velfsWrite(base, "!", 1), 1u);
  velfsCloseFile(base);
  velfsCloseDir(dir);
  EXPECT_EQ(View(database).second, (std::map<std::string, std::string>{
                                       {"base.txt", "changed!"}, {"held.txt", "held"}}));
}

}  // namespace
}  // namespace velfs_test
