// Part 3.2: DatabaseFile — lazy rows, reads, in-place and growing writes, Seek, Error and Resize,
// checked through the file itself, the exported API and an independent SQLite connection.
#include <sys/mman.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include "database/database_storage.h"
#include "database_test_support.h"
#include "test_support.h"
#include "velfs.h"

namespace velfs::testing {
namespace {

class DatabaseFileTest : public DatabaseScratchTest {
 protected:
  void SetUp() override {
    DatabaseScratchTest::SetUp();
    dbPath_ = PathOf("store.db");
    storage_ = DatabaseStorage::Open(dbPath_.c_str());
    ASSERT_NE(storage_, nullptr);
  }
  void TearDown() override {
    storage_.reset();
    DatabaseScratchTest::TearDown();
  }
  // A file of the storage holding `content` (written at position 0), reopened fresh.
  std::unique_ptr<StorageFile> FileWith(const char* path, const std::string& content) {
    {
      auto writer = storage_->CreateFile(path, 1);
      EXPECT_EQ(writer->Write(content.data(), content.size()), content.size());
    }
    return storage_->CreateFile(path, 3);
  }
  // The stored Content of the row (FileName, Path) as another connection sees it.
  std::string Stored(const std::string& fileName, const std::string& path) {
    SecondConnection other(dbPath_);
    std::string content;
    if (!other.ReadRow(fileName, path, &content)) return "<no row>";
    return content;
  }

  std::string dbPath_;
  std::unique_ptr<Storage> storage_;
};

std::string Zeros(std::size_t count) { return std::string(count, '\0'); }

// ---- Edge cases of Part 3.2 ----

TEST_F(DatabaseFileTest, P3_2_01_FileWithoutRowReadsNothingAndCreatesNothing) {
  auto file = storage_->CreateFile("d/none.txt", 1);
  ASSERT_NE(file, nullptr);
  char buffer[4] = {'q', 'q', 'q', 'q'};
  EXPECT_EQ(file->Read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(buffer[0], 'q');
  EXPECT_EQ(file->Error(), 1);
  EXPECT_EQ(file->Seek(0, 0), -1);
  EXPECT_EQ(file->Seek(0, 2), -1);
  EXPECT_EQ(file->Tell(), 0);
  file.reset();
  SecondConnection other(dbPath_);
  EXPECT_EQ(other.RowCount(), 0);
  // The same through the API.
  FileHandle* handle = velfsCreateFile((dbPath_ + ":d/none.txt").c_str(), 0);
  ASSERT_NE(handle, nullptr);
  EXPECT_EQ(velfsRead(handle, buffer, sizeof buffer), 0u);
  EXPECT_TRUE(velfsError(handle));
  EXPECT_EQ(velfsSeek(handle, 0, 0), -1);
  EXPECT_EQ(velfsTell(handle), 0);
  velfsCloseFile(handle);
  EXPECT_EQ(other.RowCount(), 0);
}

TEST_F(DatabaseFileTest, P3_2_02_FirstWriteCreatesRowWithExactlyItsBytes) {
  auto file = storage_->CreateFile("docs/a.txt", 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->Write("hello", 5), 5u);
  EXPECT_EQ(file->Tell(), 5);
  EXPECT_EQ(file->Error(), 1);  // at the end
  SecondConnection other(dbPath_);
  EXPECT_EQ(other.RowCount(), 1);
  std::string content;
  bool isNull = true;
  ASSERT_TRUE(other.ReadRow("a.txt", "docs/", &content, &isNull));
  EXPECT_FALSE(isNull);
  EXPECT_EQ(content, "hello");
  // The row leaves Info NULL.
  sqlite3_stmt* statement = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(other.db(), "SELECT Info IS NULL FROM FileStorage;", -1, &statement,
                               nullptr),
            SQLITE_OK);
  ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
  EXPECT_EQ(sqlite3_column_int(statement, 0), 1);
  sqlite3_finalize(statement);
}

TEST_F(DatabaseFileTest, P3_2_03_WritePastEndFromMiddleKeepsPrefix) {
  auto file = FileWith("f.bin", "abc");
  ASSERT_EQ(file->Seek(2, 0), 2);
  EXPECT_EQ(file->Write("WXYZ", 4), 4u);
  EXPECT_EQ(file->Tell(), 6);
  EXPECT_EQ(Stored("f.bin", ""), "abWXYZ");
  ASSERT_EQ(file->Seek(0, 0), 0);
  char buffer[16] = {};
  EXPECT_EQ(file->Read(buffer, sizeof buffer), 6u);
  EXPECT_EQ(std::string(buffer, 6), "abWXYZ");
}

TEST_F(DatabaseFileTest, P3_2_04_WriteAtStartOverwritesInPlaceOrReplacesWhenLonger) {
  auto file = FileWith("f.bin", "0123456789");
  EXPECT_EQ(file->Write("AB", 2), 2u);
  EXPECT_EQ(file->Tell(), 2);
  EXPECT_EQ(Stored("f.bin", ""), "AB23456789");
  EXPECT_EQ(file->Seek(0, 2), 10);  // still 10 bytes long
  ASSERT_EQ(file->Seek(0, 0), 0);
  EXPECT_EQ(file->Write("abcdefghijkl", 12), 12u);
  EXPECT_EQ(file->Tell(), 12);
  EXPECT_EQ(Stored("f.bin", ""), "abcdefghijkl");
  EXPECT_EQ(file->Seek(0, 2), 12);
}

TEST_F(DatabaseFileTest, P3_2_05_WriteOfZeroBytesAnswersZero) {
  auto file = storage_->CreateFile("none.txt", 1);
  EXPECT_EQ(file->Write("x", 0), 0u);
  EXPECT_EQ(file->Tell(), 0);
  SecondConnection other(dbPath_);
  EXPECT_EQ(other.RowCount(), 0);  // created nothing
  auto existing = FileWith("some.txt", "abc");
  ASSERT_EQ(existing->Seek(1, 0), 1);
  EXPECT_EQ(existing->Write("x", 0), 0u);
  EXPECT_EQ(existing->Tell(), 1);
  EXPECT_EQ(Stored("some.txt", ""), "abc");
  EXPECT_EQ(other.RowCount(), 1);
}

TEST_F(DatabaseFileTest, P3_2_06_SeekFromPositionOne) {
  auto file = FileWith("f.bin", "abc");
  ASSERT_EQ(file->Seek(1, 0), 1);
  EXPECT_EQ(file->Seek(5, 0), 1);  // past the end: refused, unmoved
  EXPECT_EQ(file->Tell(), 1);
  EXPECT_EQ(file->Seek(-1, 2), 2);
  EXPECT_EQ(file->Tell(), 2);
  ASSERT_EQ(file->Seek(1, 0), 1);
  EXPECT_EQ(file->Seek(1, 2), 1);  // past the end: refused
  EXPECT_EQ(file->Tell(), 1);
  EXPECT_EQ(file->Seek(-2, 1), 1);  // before the start: refused
  EXPECT_EQ(file->Tell(), 1);
  EXPECT_EQ(file->Seek(2, 1), 3);
  EXPECT_EQ(file->Tell(), 3);
}

TEST_F(DatabaseFileTest, P3_2_07_ReadPastEndAnswersRestThenZero) {
  auto file = FileWith("f.bin", "abc");
  ASSERT_EQ(file->Seek(1, 0), 1);
  EXPECT_EQ(file->Error(), 0);
  char buffer[10] = {};
  EXPECT_EQ(file->Read(buffer, 10), 2u);
  EXPECT_EQ(std::string(buffer, 2), "bc");
  EXPECT_EQ(file->Tell(), 3);
  EXPECT_EQ(file->Read(buffer, 10), 0u);
  EXPECT_EQ(file->Error(), 1);
  EXPECT_EQ(file->Tell(), 3);
}

TEST_F(DatabaseFileTest, P3_2_08_ResizeGrowsWithZerosShrinksAndCreatesRow) {
  auto file = FileWith("f.bin", "abc");
  EXPECT_TRUE(file->Resize(6));
  EXPECT_EQ(Stored("f.bin", ""), "abc" + Zeros(3));
  EXPECT_EQ(file->Tell(), 0);
  ASSERT_EQ(file->Seek(5, 0), 5);
  EXPECT_TRUE(file->Resize(2));
  EXPECT_EQ(file->Tell(), 2);
  EXPECT_EQ(Stored("f.bin", ""), "ab");
  EXPECT_EQ(file->Error(), 1);

  auto fresh = storage_->CreateFile("z/new.bin", 1);
  EXPECT_TRUE(fresh->Resize(4));
  EXPECT_EQ(fresh->Tell(), 0);
  EXPECT_EQ(Stored("new.bin", "z/"), Zeros(4));
  EXPECT_EQ(fresh->Seek(0, 2), 4);
}

TEST_F(DatabaseFileTest, ResizeToZeroKeepsAnEmptyRow) {
  auto file = FileWith("f.bin", "abc");
  ASSERT_EQ(file->Seek(2, 0), 2);
  EXPECT_TRUE(file->Resize(0));
  EXPECT_EQ(file->Tell(), 0);
  EXPECT_EQ(file->Error(), 1);
  SecondConnection other(dbPath_);
  std::string content = "x";
  bool isNull = true;
  ASSERT_TRUE(other.ReadRow("f.bin", "", &content, &isNull));
  EXPECT_FALSE(isNull);  // an empty blob, not NULL
  EXPECT_EQ(content, "");
  EXPECT_EQ(file->Write("new", 3), 3u);
  EXPECT_EQ(Stored("f.bin", ""), "new");
}

TEST_F(DatabaseFileTest, P3_2_09_ReadAndInPlaceWriteAfterGrowingWriteAndResize) {
  auto file = FileWith("f.bin", "abc");
  // Learn the length (the Part would now hold a blob handle).
  char buffer[16] = {};
  ASSERT_EQ(file->Read(buffer, 1), 1u);
  ASSERT_EQ(file->Seek(3, 0), 3);
  EXPECT_EQ(file->Write("def", 3), 3u);  // growing: the row is rewritten
  ASSERT_EQ(file->Seek(1, 0), 1);
  EXPECT_EQ(file->Write("B", 1), 1u);  // in place right after the rewrite
  EXPECT_EQ(Stored("f.bin", ""), "aBcdef");
  ASSERT_EQ(file->Seek(0, 0), 0);
  EXPECT_EQ(file->Read(buffer, sizeof buffer), 6u);
  EXPECT_EQ(std::string(buffer, 6), "aBcdef");

  EXPECT_TRUE(file->Resize(8));  // rewritten again
  ASSERT_EQ(file->Seek(7, 0), 7);
  EXPECT_EQ(file->Write("H", 1), 1u);  // in place inside the new length
  EXPECT_EQ(Stored("f.bin", ""), "aBcdef" + Zeros(1) + "H");
  EXPECT_TRUE(file->Resize(5));
  ASSERT_EQ(file->Seek(0, 0), 0);
  EXPECT_EQ(file->Read(buffer, sizeof buffer), 5u);  // read right after the rewrite
  EXPECT_EQ(std::string(buffer, 5), "aBcde");
}

TEST_F(DatabaseFileTest, P3_2_10_OpenModeHasNoEffect) {
  FileWith("f.bin", "content").reset();
  for (uint32_t mode = 0; mode <= 5; ++mode) {
    SCOPED_TRACE("mode " + std::to_string(mode));
    auto file = storage_->CreateFile("f.bin", mode);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->Tell(), 0);
    EXPECT_EQ(file->Error(), 0);
    char buffer[16] = {};
    EXPECT_EQ(file->Read(buffer, sizeof buffer), 7u);
    EXPECT_EQ(std::string(buffer, 7), "content");
    EXPECT_EQ(Stored("f.bin", ""), "content");
  }
  // Through the API with the writing and appending modes: neither emptied nor at the end.
  for (uint32_t mode : {1u, 2u, 4u, 5u}) {
    FileHandle* file = velfsCreateFile((dbPath_ + ":f.bin").c_str(), mode);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(velfsTell(file), 0);
    EXPECT_EQ(velfsWrite(file, "C", 1), 1u);  // at position 0, in place
    velfsCloseFile(file);
  }
  EXPECT_EQ(Stored("f.bin", ""), "Content");
}

TEST_F(DatabaseFileTest, P3_2_11_RenamedOpenFileKeepsAddressingItsRow) {
  auto file = FileWith("a/x", "abc");
  char buffer[8] = {};
  ASSERT_EQ(file->Read(buffer, 1), 1u);  // the row id is known from here on
  ASSERT_TRUE(storage_->RenameFile("a/x", "a/y"));
  EXPECT_EQ(file->Read(buffer, 2), 2u);
  EXPECT_EQ(std::string(buffer, 2), "bc");
  ASSERT_EQ(file->Seek(0, 0), 0);
  EXPECT_EQ(file->Write("A", 1), 1u);      // in place
  ASSERT_EQ(file->Seek(3, 0), 3);
  EXPECT_EQ(file->Write("DE", 2), 2u);     // growing
  EXPECT_TRUE(file->Resize(6));
  EXPECT_EQ(Stored("y", "a/"), "AbcDE" + Zeros(1));
  EXPECT_EQ(Stored("x", "a/"), "<no row>");
  SecondConnection other(dbPath_);
  EXPECT_EQ(other.RowCount(), 1);
}

TEST_F(DatabaseFileTest, P3_2_12_NullContentBehavesAsEmptyFile) {
  // CopyFile of an empty file leaves NULL in the target's Content (Part 3.1).
  {
    auto empty = storage_->CreateFile("empty", 1);
    ASSERT_TRUE(empty->Resize(0));
  }
  ASSERT_TRUE(storage_->CopyFile("empty", "n1", false));
  SecondConnection other(dbPath_);
  const std::string* nullContent = nullptr;
  ASSERT_TRUE(other.InsertRow("n2", "", nullContent));
  for (const char* name : {"n1", "n2"}) {
    bool isNull = false;
    ASSERT_TRUE(other.ReadRow(name, "", nullptr, &isNull));
    ASSERT_TRUE(isNull) << name;
    // SQLite opens no blob handle on a NULL value.
    sqlite3_blob* blob = nullptr;
    sqlite3_int64 rowId = 0;
    {
      sqlite3_stmt* statement = nullptr;
      sqlite3_prepare_v2(other.db(), "SELECT rowid FROM FileStorage WHERE FileName=?;", -1,
                         &statement, nullptr);
      sqlite3_bind_text(statement, 1, name, -1, SQLITE_STATIC);
      ASSERT_EQ(sqlite3_step(statement), SQLITE_ROW);
      rowId = sqlite3_column_int64(statement, 0);
      sqlite3_finalize(statement);
    }
    EXPECT_NE(sqlite3_blob_open(other.db(), "main", "FileStorage", "Content", rowId, 0, &blob),
              SQLITE_OK);
    sqlite3_blob_close(blob);
  }

  auto n1 = storage_->CreateFile("n1", 3);
  char buffer[4] = {};
  EXPECT_EQ(n1->Read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(n1->Error(), 1);
  EXPECT_EQ(n1->Seek(0, 0), 0);
  EXPECT_EQ(n1->Seek(0, 2), 0);
  EXPECT_EQ(n1->Tell(), 0);
  EXPECT_EQ(n1->Write("hi", 2), 2u);
  bool isNull = true;
  std::string content;
  ASSERT_TRUE(other.ReadRow("n1", "", &content, &isNull));
  EXPECT_FALSE(isNull);
  EXPECT_EQ(content, "hi");

  auto n2 = storage_->CreateFile("n2", 0);
  EXPECT_EQ(n2->Read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(n2->Error(), 1);
  EXPECT_EQ(n2->Seek(0, 0), 0);
  EXPECT_TRUE(n2->Resize(3));
  ASSERT_TRUE(other.ReadRow("n2", "", &content, &isNull));
  EXPECT_FALSE(isNull);
  EXPECT_EQ(content, Zeros(3));
  EXPECT_EQ(other.RowCount(), 3);  // empty, n1, n2: no row added
}

// ---- Interleaving on one handle ----

// Writes, in-place writes and Resize mixed with reads on one handle, against a model of the
// file, checked after every step through the handle and through another connection.
TEST_F(DatabaseFileTest, GrowingInPlaceWritesAndResizeInterleavedWithReads) {
  DirHandle* dir = velfsOpenDir(dbPath_.c_str());
  ASSERT_NE(dir, nullptr);
  FileHandle* file = velfsCreateFileIndir(dir, "mix/f.bin", 4);
  ASSERT_NE(file, nullptr);
  SecondConnection other(dbPath_);
  std::string model;
  std::size_t position = 0;
  auto write = [&](const std::string& bytes) {
    EXPECT_EQ(velfsWrite(file, bytes.data(), bytes.size()), bytes.size());
    if (model.size() < position + bytes.size()) model.resize(position + bytes.size());
    model.replace(position, bytes.size(), bytes);
    position += bytes.size();
  };
  auto read = [&](std::size_t count) {
    std::string buffer(count, '\0');
    const uint64_t got = velfsRead(file, buffer.data(), count);
    const std::size_t expected = std::min(count, model.size() - position);
    EXPECT_EQ(got, expected);
    EXPECT_EQ(buffer.substr(0, expected), model.substr(position, expected));
    position += expected;
  };
  auto seek = [&](std::size_t target) {
    EXPECT_EQ(velfsSeek(file, static_cast<int32_t>(target), 0), static_cast<int32_t>(target));
    position = target;
  };
  auto resize = [&](std::size_t size) {
    EXPECT_TRUE(velfsResize(file, size));
    model.resize(size, '\0');
    position = std::min(position, size);
  };
  auto check = [&](int step) {
    SCOPED_TRACE("step " + std::to_string(step));
    EXPECT_EQ(velfsTell(file), static_cast<int32_t>(position));
    std::string stored;
    EXPECT_TRUE(other.ReadRow("f.bin", "mix/", &stored));
    EXPECT_EQ(stored, model);
    EXPECT_EQ(velfsError(file), position >= model.size());
  };

  write("hello");             check(1);   // inserts the row
  seek(1); read(2);           check(2);
  write("XYZW");              check(3);   // grows from position 3
  seek(0); write("J");        check(4);   // in place right after the rewrite
  read(3);                    check(5);
  resize(12);                 check(6);
  seek(10); write("!!");      check(7);   // in place at the very end of the new length
  write("tail");              check(8);   // grows from the end
  seek(2); write("mm");       check(9);   // in place
  resize(5);                  check(10);
  read(10);                   check(11);  // position was pulled back to 5: nothing to read
  seek(0); read(100);         check(12);
  seek(0); write(std::string(40, 'L'));  check(13);  // replaces from position 0
  seek(39); write("ab");      check(14);  // grows by one byte
  seek(20); read(5); write("cd"); read(1); check(15);
  resize(0);                  check(16);
  write("again");             check(17);  // from 0 in an emptied row
  seek(5); resize(100000);    check(18);  // large zero-filled growth
  seek(99990); write("0123456789"); check(19);
  seek(99995); read(10);      check(20);

  EXPECT_EQ(ReadAll(file), model);
  velfsCloseFile(file);
  velfsCloseDir(dir);
}

// ---- Sizes beyond the 32-bit range ----

TEST_F(DatabaseFileTest, WriteOrResizeBeyondInt32MaxFailsAndStoresNothing) {
  // A readable zero-filled range larger than 4 GiB, reserved but never committed.
  const std::size_t huge = (std::size_t{1} << 32) + 4096;
  void* mapping =
      mmap(nullptr, huge, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  ASSERT_NE(mapping, MAP_FAILED);
  const uint64_t int32Max = static_cast<uint64_t>(std::numeric_limits<int32_t>::max());

  auto file = FileWith("big.bin", "abc");
  EXPECT_EQ(file->Write(mapping, uint64_t{1} << 32), 0u);  // at position 0
  EXPECT_EQ(file->Tell(), 0);
  ASSERT_EQ(file->Seek(3, 0), 3);
  EXPECT_EQ(file->Write(mapping, int32Max - 2), 0u);  // 3 + (2^31 - 3) = 2^31 bytes
  EXPECT_EQ(file->Tell(), 3);
  EXPECT_FALSE(file->Resize(uint64_t{1} << 32));
  EXPECT_FALSE(file->Resize(int32Max + 1));
  EXPECT_EQ(file->Tell(), 3);
  EXPECT_EQ(file->Seek(0, 2), 3);
  EXPECT_EQ(Stored("big.bin", ""), "abc");

  // Without a row: nothing is created.
  auto fresh = storage_->CreateFile("none.bin", 1);
  EXPECT_EQ(fresh->Write(mapping, uint64_t{1} << 32), 0u);
  EXPECT_FALSE(fresh->Resize(uint64_t{1} << 32));
  EXPECT_EQ(fresh->Tell(), 0);
  EXPECT_EQ(Stored("none.bin", ""), "<no row>");

  // The same through the API.
  FileHandle* handle = velfsCreateFile((dbPath_ + ":big.bin").c_str(), 3);
  ASSERT_NE(handle, nullptr);
  EXPECT_FALSE(velfsResize(handle, uint64_t{1} << 32));
  EXPECT_EQ(velfsWrite(handle, mapping, uint64_t{1} << 32), 0u);
  EXPECT_EQ(ReadAll(handle), "abc");
  velfsCloseFile(handle);
  EXPECT_EQ(Stored("big.bin", ""), "abc");
  munmap(mapping, huge);
}

}  // namespace
}  // namespace velfs::testing
