// Crash consistency (issue 8): velfs_crash_writer runs transactions (transaction_script.h) on a
// database root and is killed with SIGKILL at a random moment, 200 times over, on the same
// database. After every kill a second SQLite connection (which rolls back the hot journal the
// writer left) finds PRAGMA integrity_check "ok" and exactly the rows of the last reported
// commit, or of the one after it when the writer was killed between velfsCommitTrans answering
// true and its report: every committed transaction whole, nothing of an uncommitted one. Every
// other kill the database is first opened through the library (velfsOpenDir) and read there.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>

#include <cstdint>
#include <cstring>
#include <filesystem>
#include <random>
#include <string>

#include "child_process.h"
#include "reliability_support.h"
#include "test_support.h"
#include "transaction_script.h"
#include "velfs.h"

namespace velfs::reliability {
namespace {

constexpr int kKills = 200;
constexpr uint32_t kSeed = 20240839;  // the kill moments are reproducible
constexpr long kMaxDelayMicroseconds = 60000;

class CrashConsistencyTest : public velfs::testing::ScratchDirTest {};

void SleepMicroseconds(long microseconds) {
  timespec delay{microseconds / 1000000, (microseconds % 1000000) * 1000};
  while (nanosleep(&delay, &delay) != 0) {
  }
}

// The counter file as the library reads it ("" when the root or the file does not open).
std::string CounterThroughLibrary(const std::string& path) {
  DirHandle* dir = velfsOpenDir(path.c_str());
  if (dir == nullptr) return "<no root>";
  std::string content;
  if (FileHandle* file = velfsCreateFileIndir(dir, "counter.txt", 0)) {
    char buffer[32];
    const uint64_t count = velfsRead(file, buffer, sizeof buffer);
    content.assign(buffer, static_cast<std::size_t>(count));
    velfsCloseFile(file);
  }
  velfsCloseDir(dir);
  return content;
}

TEST_F(CrashConsistencyTest, TwoHundredKillsLeaveEveryCommittedTransactionWholeAndNothingElse) {
  const std::string database = PathOf("crash.db");
  const std::string journal = database + "-journal";
  std::mt19937 random(kSeed);
  std::uniform_int_distribution<long> delay(0, kMaxDelayMicroseconds);
  uint32_t committed = 0;  // the last transaction known to be in the database
  int hotJournals = 0;
  int unreportedCommits = 0;

  for (int kill = 1; kill <= kKills; ++kill) {
    SCOPED_TRACE("kill " + std::to_string(kill) + " of " + std::to_string(kKills) + ", seed " +
                 std::to_string(kSeed));
    ChildProcess writer(CrashWriterPath(), {"write", database, std::to_string(committed + 1)});
    ASSERT_TRUE(writer.running());
    SleepMicroseconds(delay(random));
    writer.Kill(SIGKILL);
    const int status = writer.Wait();
    ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL)
        << "the writer ended by itself, wait status " << status;

    // Every report is a whole 4-byte number: pipe writes that small are atomic.
    const std::string reports = writer.ReceiveAll();
    ASSERT_EQ(reports.size() % sizeof(uint32_t), 0u);
    for (std::size_t at = 0; at < reports.size(); at += sizeof(uint32_t)) {
      uint32_t index = 0;
      std::memcpy(&index, reports.data() + at, sizeof index);
      ASSERT_EQ(index, committed + 1) << "reports out of order";
      committed = index;
    }
    struct stat journalStatus;
    if (::stat(journal.c_str(), &journalStatus) == 0 && journalStatus.st_size > 0) ++hotJournals;

    if (kill % 2 == 0 && std::filesystem::exists(database)) {
      // The library opens the database first and rolls the hot journal back itself.
      const std::string counter = CounterThroughLibrary(database);
      EXPECT_TRUE(counter == (committed == 0 ? "" : std::to_string(committed)) ||
                  counter == std::to_string(committed + 1))
          << "counter.txt reads '" << counter << "' after commit " << committed;
    }
    const DatabaseView view = ViewDatabase(database);
    if (!view.opened) {
      ASSERT_EQ(committed, 0u) << "the database is gone after commit " << committed;
      continue;
    }
    ASSERT_EQ(view.integrity, "ok");
    ASSERT_EQ(view.integrityRows, 1);
    if (view.rows == StateAfter(committed + 1)) {
      ++committed;  // committed, killed before it reported
      ++unreportedCommits;
    } else {
      ASSERT_TRUE(view.rows == StateAfter(committed))
          << "the rows are neither those of transaction " << committed << " nor of "
          << committed + 1 << " (" << view.rows.size() << " rows)";
    }
  }
  EXPECT_GT(committed, 0u) << "no transaction was ever committed: the kills came too early";
  EXPECT_GT(hotJournals, 0) << "no kill fell inside a transaction";
  std::cout << "[ figures  ] " << kKills << " kills survived, " << committed
            << " transactions committed, " << hotJournals << " kills left a hot journal, "
            << unreportedCommits << " commits were found that the writer had not reported"
            << std::endl;
  RecordProperty("kills", kKills);
  RecordProperty("committed", static_cast<int>(committed));
  RecordProperty("hotJournals", hotJournals);
  RecordProperty("unreportedCommits", unreportedCommits);
}

}  // namespace
}  // namespace velfs::reliability
