// How often writing a large file of a database root rewrites its row, counted by SQLite's own
// update hook (installed on every connection the library opens, through
// sqlite3_auto_extension), never by a clock. Growing writes inside an explicit transaction keep
// the appended bytes until something can see the row, which is then stored once, so N appending
// writes change the row twice (its creation and that store) whatever N is; a file resized to its
// final length first is then written in place without any rewrite. In every case the row holds
// exactly the bytes written as soon as another statement can see it: a second handle on the same
// root inside the transaction, a copy made inside it, a second connection after each call
// outside a transaction, which can also write between two calls.
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <string>
#include <string_view>

#include "support.h"
#include "velfs.h"

namespace velfs_test {
namespace {

constexpr int kChunk = 4096;
constexpr int kChunks = 256;

int rowChanges = 0;  // INSERTs and UPDATEs of "FileStorage" rows, on every hooked connection
int maxPageCount = 0;  // when not 0, every connection opened may hold at most this many pages

void CountRowChange(void*, int, const char*, const char* table, sqlite3_int64) {
  if (std::string_view(table) == "FileStorage") ++rowChanges;
}

int HookConnection(sqlite3* db, char**, const sqlite3_api_routines*) {
  sqlite3_update_hook(db, &CountRowChange, nullptr);
  if (maxPageCount == 0) return SQLITE_OK;
  const std::string limit = "PRAGMA max_page_count=" + std::to_string(maxPageCount);
  return sqlite3_exec(db, limit.c_str(), nullptr, nullptr, nullptr);
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
    maxPageCount = 0;
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
  int maxRewrites;  // INSERTs and UPDATEs of rows until a second handle has seen the file
};

TEST_F(RowRewriteTest, SequentialWritesRewriteTheRowRarelyAndLeaveItExact) {
  const Case cases[] = {
      {"growing inside a transaction", true, false, 2},
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

    // Inside the transaction, the same root sees exactly the file: a second handle's end and a
    // copy of the file.
    FileHandle* other = velfsCreateFileIndir(dir, "big.bin", 0);
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(velfsSeek(other, 0, 2), static_cast<int32_t>(expected.size()));
    velfsCloseFile(other);
    EXPECT_LE(rowChanges, test.maxRewrites);
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

// Inside a transaction the writing handle reads, seeks, overwrites and resizes across the end
// of what its row stores and the bytes it keeps for it, and the commit stores what it saw.
TEST_F(RowRewriteTest, TheWritingHandleSeesTheBytesItHasNotStoredYet) {
  const std::string path = PathOf("pending.db");
  DirHandle* dir = velfsOpenDir(path.c_str());
  ASSERT_NE(dir, nullptr);
  ASSERT_TRUE(velfsBeginTrans(dir));
  FileHandle* file = velfsCreateFileIndir(dir, "p.bin", 1);
  ASSERT_NE(file, nullptr);
  std::string model;
  auto append = [&](int k) {
    ASSERT_EQ(velfsWrite(file, Chunk(k).data(), kChunk), static_cast<uint64_t>(kChunk));
    model += Chunk(k);
  };
  auto readAt = [&](uint32_t offset, uint32_t count) {
    std::string bytes(count, '\0');
    EXPECT_EQ(velfsSeek(file, static_cast<int32_t>(offset), 0), static_cast<int32_t>(offset));
    bytes.resize(velfsRead(file, bytes.data(), count));
    return bytes;
  };
  for (int k = 0; k < 8; ++k) append(k);
  EXPECT_EQ(readAt(kChunk / 2, 2 * kChunk), model.substr(kChunk / 2, 2 * kChunk));
  EXPECT_EQ(readAt(7 * kChunk + 1, kChunk), model.substr(7 * kChunk + 1));
  EXPECT_EQ(velfsSeek(file, 0, 2), 8 * kChunk);
  // An overwrite across the first chunk's end, and one past the end that grows the file.
  for (const uint32_t offset : {kChunk - 10u, 8u * kChunk - 5u}) {
    ASSERT_EQ(velfsSeek(file, static_cast<int32_t>(offset), 0), static_cast<int32_t>(offset));
    ASSERT_EQ(velfsWrite(file, "xxxxxxxxxxxxxxxxxxxx", 20), 20u);
    model.replace(offset, 20, 20, 'x');
  }
  EXPECT_EQ(readAt(0, static_cast<uint32_t>(model.size()) + 1), model);
  // Resizes cut the kept bytes, extend them with zero bytes, and cut below what the row stores.
  for (const uint32_t size : {5u * kChunk + 100u, 6u * kChunk, 3u * kChunk}) {
    ASSERT_TRUE(velfsResize(file, size));
    model.resize(size, '\0');
    EXPECT_EQ(readAt(0, 8 * kChunk), model) << size;
    append(9);
  }
  velfsCloseFile(file);
  ASSERT_TRUE(velfsCommitTrans(dir));
  velfsCloseDir(dir);
  SecondConnection check(path);
  EXPECT_TRUE(check.Content("p.bin", "") == model);
}

// A file whose row cannot be stored (here the database may not grow past a page limit) fails
// the calls that need the row, and the commit, which rolls the transaction back: no row is ever
// kept without all of its bytes. Below the limit the same writes are committed.
TEST_F(RowRewriteTest, ARowThatCannotBeStoredFailsTheCommitAndKeepsNothing) {
  for (const bool closeFirst : {false, true}) {
    SCOPED_TRACE(closeFirst ? "file closed before the commit" : "copied before the commit");
    const std::string path = PathOf(closeFirst ? "full-c.db" : "full-k.db");
    maxPageCount = 64;  // 512 KiB at the library's page size
    DirHandle* dir = velfsOpenDir(path.c_str());
    ASSERT_NE(dir, nullptr);
    maxPageCount = 0;
    for (const int chunks : {8, kChunks}) {
      ASSERT_TRUE(velfsBeginTrans(dir));
      const std::string name = std::to_string(chunks) + ".bin";
      FileHandle* file = velfsCreateFileIndir(dir, name.c_str(), 1);
      ASSERT_NE(file, nullptr);
      std::string expected;
      bool written = true;
      for (int k = 0; written && k < chunks; ++k) {
        written = velfsWrite(file, Chunk(k).data(), kChunk) == static_cast<uint64_t>(kChunk);
        expected += Chunk(k);
      }
      const bool fits = chunks * kChunk < 64 * 8192 / 4;
      EXPECT_TRUE(written);  // the bytes are kept; storing them is what fails
      if (!closeFirst) {
        EXPECT_EQ(velfsCopyFile(dir, name.c_str(), "copy.bin", false), fits);
      }
      velfsCloseFile(file);
      EXPECT_EQ(velfsCommitTrans(dir), fits);
      SecondConnection check(path);
      EXPECT_TRUE(check.Content(name, "") == (fits ? expected : "<no row>")) << name;
    }
    velfsCloseDir(dir);
  }
}

// A tail starts from the row as it stands: another handle on the root may have grown,
// shortened, renamed or deleted the row since the writing handle last looked, and the writer's
// next growing write and reads follow that row (zero bytes fill a gap, a deleted row fails the
// write), while a handle opened on the new name sees the bytes kept for it.
TEST_F(RowRewriteTest, AWriterFollowsWhatAnotherHandleDidToItsRow) {
  const std::string path = PathOf("others.db");
  DirHandle* dir = velfsOpenDir(path.c_str());
  ASSERT_NE(dir, nullptr);
  ASSERT_TRUE(velfsBeginTrans(dir));
  const auto start = [&](const char* name) {
    FileHandle* file = velfsCreateFileIndir(dir, name, 1);
    EXPECT_EQ(velfsWrite(file, "0123456789", 10), 10u);
    return file;
  };
  FileHandle* grown = start("grown");
  FileHandle* other = velfsCreateFileIndir(dir, "grown", 0);
  ASSERT_TRUE(velfsResize(other, 3u << 20));
  velfsCloseFile(other);
  ASSERT_EQ(velfsSeek(grown, 5, 0), 5);
  EXPECT_EQ(velfsWrite(grown, "abcdefghij", 10), 10u);
  EXPECT_EQ(velfsSeek(grown, 0, 2), 3 << 20);
  ASSERT_EQ(velfsSeek(grown, 0, 0), 0);
  std::string grownBytes(3u << 20, '?');
  EXPECT_EQ(velfsRead(grown, grownBytes.data(), grownBytes.size()), grownBytes.size());

  FileHandle* shortened = start("shortened");
  other = velfsCreateFileIndir(dir, "shortened", 0);
  ASSERT_TRUE(velfsResize(other, 2));
  velfsCloseFile(other);
  EXPECT_EQ(velfsWrite(shortened, "XY", 2), 2u);

  FileHandle* deleted = start("deleted");
  ASSERT_TRUE(velfsDeleteFile(dir, "deleted"));
  EXPECT_EQ(velfsWrite(deleted, "abc", 3), 0u);

  FileHandle* renamed = start("d/a");
  EXPECT_EQ(velfsWrite(renamed, "ABCDEFGHIJ", 10), 10u);
  ASSERT_TRUE(velfsRenameFile(dir, "d/a", "d/b"));
  FileHandle* newName = velfsCreateFileIndir(dir, "d/b", 0);
  std::string renamedBytes(64, '?');
  renamedBytes.resize(velfsRead(newName, renamedBytes.data(), renamedBytes.size()));
  EXPECT_EQ(renamedBytes, "0123456789ABCDEFGHIJ");

  for (FileHandle* file : {grown, shortened, deleted, renamed, newName}) velfsCloseFile(file);
  ASSERT_TRUE(velfsCommitTrans(dir));
  velfsCloseDir(dir);
  std::string expectedGrown(3u << 20, '\0');
  expectedGrown.replace(0, 15, "01234abcdefghij");
  EXPECT_TRUE(grownBytes == expectedGrown);
  SecondConnection check(path);
  EXPECT_TRUE(check.Content("grown", "") == expectedGrown);
  EXPECT_EQ(check.Content("shortened", ""), std::string("01") + std::string(8, '\0') + "XY");
  EXPECT_EQ(check.Content("deleted", ""), "<no row>");
  EXPECT_EQ(check.Content("b", "d/"), "0123456789ABCDEFGHIJ");
}

// A commit that fails rolls back the rows the transaction created, and SQLite gives their rowids
// to the next rows inserted: a file still open then keeps neither its bytes nor its rowid, so
// closing it in a later transaction writes nothing into another file's row.
TEST_F(RowRewriteTest, AFileLeftOpenByAFailedCommitKeepsNothingOfIt) {
  const std::string path = PathOf("reused.db");
  maxPageCount = 64;  // 512 KiB at the library's page size
  DirHandle* dir = velfsOpenDir(path.c_str());
  ASSERT_NE(dir, nullptr);
  maxPageCount = 0;
  ASSERT_TRUE(velfsBeginTrans(dir));
  FileHandle* first = velfsCreateFileIndir(dir, "first", 1);
  FileHandle* second = velfsCreateFileIndir(dir, "second", 1);
  const std::string bytes(300 << 10, 'K');
  for (FileHandle* file : {first, second}) ASSERT_EQ(velfsWrite(file, "k", 1), 1u);
  for (FileHandle* file : {first, second}) {
    ASSERT_EQ(velfsWrite(file, bytes.data(), bytes.size()), bytes.size());
  }
  EXPECT_FALSE(velfsCommitTrans(dir));
  velfsCloseFile(first);
  ASSERT_TRUE(velfsBeginTrans(dir));
  for (const char* name : {"x1", "x2"}) {
    FileHandle* file = velfsCreateFileIndir(dir, name, 1);
    ASSERT_EQ(velfsWrite(file, name, 2), 2u);
    velfsCloseFile(file);
  }
  velfsCloseFile(second);
  EXPECT_TRUE(velfsCommitTrans(dir));
  velfsCloseDir(dir);
  SecondConnection check(path);
  EXPECT_EQ(check.Content("x1", ""), "x1");
  EXPECT_EQ(check.Content("x2", ""), "x2");
  EXPECT_EQ(check.Content("second", ""), "<no row>");
}

}  // namespace
}  // namespace velfs_test
