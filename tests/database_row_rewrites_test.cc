// How often writing a large file of a database root rewrites its row, counted by SQLite's own
// update hook (installed on every connection the library opens, through
// sqlite3_auto_extension), never by a clock. A growing write inside an explicit transaction
// fills room left by an earlier rewrite, so N appending writes rewrite the row O(log N) times;
// a file resized to its final length first is then written in place without any rewrite. In
// every case the row holds exactly the bytes written as soon as another statement can see it:
// a second handle on the same root inside the transaction, a copy made inside it, a second
// connection after each call outside a transaction, which can also write between two calls.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cmath>
#include <string>
#include <string_view>

#include "support.h"
#include "velfs.h"

namespace velfs_test {
namespace {

constexpr int kChunk = 4096;
constexpr int kChunks = 256;

int rowChanges = 0;  // INSERTs and UPDATEs of "FileStorage" rows, on every hooked connection

void CountRowChange(void*, int, const char*, const char* table, sqlite3_int64) {
  if (std::string_view(table) == "FileStorage") ++rowChanges;
}

int HookConnection(sqlite3* db, char**, const sqlite3_api_routines*) {
  sqlite3_update_hook(db, &CountRowChange, nullptr);
  return SQLITE_OK;
}

// Chunk k: kChunk bytes, all of them k's low byte plus one.
std::string Chunk(int k) { return std::string(kChunk, static_cast<char>(k + 1)); }

// Chunks `first` to `first + count - 1`, one after the other.
std::string Chunks(int first, int count) {
  std::string bytes;
  for (int k = first; k < first + count; ++k) bytes += Chunk(k);
  return bytes;
}

class RowRewriteTest : public ScratchTest {
 protected:
  void SetUp() override {
    ScratchTest::SetUp();
    rowChanges = 0;
    sqlite3_auto_extension(reinterpret_cast<void (*)()>(&HookConnection));
  }
  void TearDown() override {
    sqlite3_cancel_auto_extension(reinterpret_cast<void (*)()>(&HookConnection));
    ScratchTest::TearDown();
  }
};

struct Case {
  const char* name;
  bool inTransaction;
  bool resizeFirst;
  int maxRewrites;  // INSERTs and UPDATEs of rows while the file is written
};

TEST_F(RowRewriteTest, SequentialWritesRewriteTheRowRarelyAndLeaveItExact) {
  const int logarithmic = 2 * static_cast<int>(std::ceil(std::log2(kChunks))) + 2;
  const Case cases[] = {
      {"growing inside a transaction", true, false, logarithmic},
      {"resized first, outside a transaction", false, true, 1},
      {"resized first, inside a transaction", true, true, 1},
  };
  const std::string expected = Chunks(0, kChunks);
  for (const Case& test : cases) {
    SCOPED_TRACE(test.name);
    const std::string path = PathOf("rows-" + std::to_string(&test - cases) + ".db");
    DirHandle* dir = velfsOpenDir(path.c_str());
    ASSERT_NE(dir, nullptr);
    SecondConnection second(path);
    if (test.inTransaction) {
      ASSERT_TRUE(velfsBeginTrans(dir));
    }
    FileHandle* file = velfsCreateFileIndir(dir, "big.bin", 1);
    ASSERT_NE(file, nullptr);
    rowChanges = 0;
    if (test.resizeFirst) {
      ASSERT_TRUE(velfsResize(file, expected.size()));
    }
    for (int k = 0; k < kChunks; ++k) {
      ASSERT_EQ(velfsWrite(file, Chunk(k).data(), kChunk), static_cast<uint64_t>(kChunk));
      if (!test.inTransaction && k % 64 == 0) {
        // Every call is committed and leaves no lock: the second connection sees the bytes and
        // can write between two calls.
        const std::string content = second.Content("big.bin", "");
        EXPECT_EQ(content.substr(0, (k + 1) * kChunk), expected.substr(0, (k + 1) * kChunk));
        const int counted = rowChanges;  // the second connection's insert is not the file's
        EXPECT_TRUE(second.Exec("INSERT INTO FileStorage (FileName, Path) VALUES ('w" +
                                std::to_string(k) + "', '')"));
        rowChanges = counted;
      }
    }
    EXPECT_LE(rowChanges, test.maxRewrites);

    // Inside the transaction, the same root sees exactly the file: a second handle's end and a
    // copy of the file.
    FileHandle* other = velfsCreateFileIndir(dir, "big.bin", 0);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(velfsSeek(other, 0, 2), static_cast<int32_t>(expected.size()));
    velfsCloseFile(other);
    EXPECT_TRUE(velfsCopyFile(dir, "big.bin", "copy.bin", true));
    velfsCloseFile(file);
    if (test.inTransaction) {
      ASSERT_TRUE(velfsCommitTrans(dir));
    }
    velfsCloseDir(dir);

    for (const char* name : {"big.bin", "copy.bin"}) {
      EXPECT_TRUE(second.Content(name, "") == expected) << name;
    }
  }
}

// Two files written in turns inside one transaction, each rewriting the other's row: every call
// on one settles the other only when they share a row, so both end exact.
TEST_F(RowRewriteTest, FilesWrittenInTurnsEndExact) {
  const std::string path = PathOf("turns.db");
  DirHandle* dir = velfsOpenDir(path.c_str());
  ASSERT_NE(dir, nullptr);
  ASSERT_TRUE(velfsBeginTrans(dir));
  FileHandle* first = velfsCreateFileIndir(dir, "a.bin", 1);
  FileHandle* second = velfsCreateFileIndir(dir, "b.bin", 1);
  FileHandle* sameRow = velfsCreateFileIndir(dir, "a.bin", 0);
  std::string readBack(kChunk, '\0');
  for (int k = 0; k < 64; ++k) {
    ASSERT_EQ(velfsWrite(first, Chunk(k).data(), kChunk), static_cast<uint64_t>(kChunk));
    ASSERT_EQ(velfsWrite(second, Chunk(k + 1).data(), kChunk), static_cast<uint64_t>(kChunk));
    // The other handle on a.bin reads each chunk as it is written, and finds the end there.
    ASSERT_EQ(velfsRead(sameRow, readBack.data(), kChunk), static_cast<uint64_t>(kChunk));
    EXPECT_TRUE(readBack == Chunk(k)) << "chunk " << k;
    EXPECT_EQ(velfsRead(sameRow, readBack.data(), kChunk), 0u);
  }
  velfsCloseFile(sameRow);
  velfsCloseFile(first);
  velfsCloseFile(second);
  ASSERT_TRUE(velfsCommitTrans(dir));
  velfsCloseDir(dir);
  SecondConnection check(path);
  EXPECT_TRUE(check.Content("a.bin", "") == Chunks(0, 64));
  EXPECT_TRUE(check.Content("b.bin", "") == Chunks(1, 64));
}

}  // namespace
}  // namespace velfs_test
