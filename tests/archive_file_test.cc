// Part 5.3: ArchiveFile, the member streams of an archive, stored and deflated.
#include <string>
#include <vector>

#include "archive_test_support.h"

namespace velfs::testing::archivetest {
namespace {

class ArchiveFileTest : public ArchiveTest {
 protected:
  void SetUp() override {
    ArchiveTest::SetUp();
    text_ = PseudoRandomBytes(5000, 53, 26);
    for (char& c : text_) c = static_cast<char>('a' + c);
    path_ = MakeZip("files.zip", {Stored("stored.txt", text_), Deflated("deflated.txt", text_),
                                  Stored("empty.txt", ""), Deflated("empty-deflated.txt", ""),
                                  Stored("hello.txt", "hello"), Deflated("other.bin", other_)});
    storage_ = OpenArchive(path_);
    ASSERT_NE(storage_, nullptr);
  }
  void TearDown() override {
    storage_.reset();
    ArchiveTest::TearDown();
  }
  std::unique_ptr<StorageFile> Open(const char* name, uint32_t mode = 0) {
    std::unique_ptr<StorageFile> file = storage_->CreateFile(name, mode);
    EXPECT_NE(file, nullptr) << name;
    return file;
  }
  static std::string ReadN(StorageFile& file, std::size_t count) {
    std::string bytes(count, '\0');
    const uint64_t got = file.Read(bytes.data(), count);
    EXPECT_LE(got, count);
    bytes.resize(got <= count ? static_cast<std::size_t>(got) : 0);
    return bytes;
  }

  std::string text_;
  const std::string other_ = PseudoRandomBytes(3000, 77, 256);
  std::string path_;
  std::unique_ptr<Storage> storage_;
};

TEST_F(ArchiveFileTest, P5_3_01_ReadPastTheMemberGivesItsSizeThenZero) {
  for (const char* name : {"stored.txt", "deflated.txt"}) {
    SCOPED_TRACE(name);
    std::unique_ptr<StorageFile> file = Open(name);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->Error(), 0);
    std::string buffer(8000, '#');
    EXPECT_EQ(file->Read(buffer.data(), buffer.size()), 5000u);
    EXPECT_EQ(buffer.substr(0, 5000), text_);
    EXPECT_EQ(file->Error(), 1);  // already at the end, before the read that returns 0
    EXPECT_EQ(file->Tell(), 5000);
    EXPECT_EQ(file->Read(buffer.data(), buffer.size()), 0u);
    EXPECT_EQ(file->Error(), 1);
    EXPECT_EQ(file->Tell(), 5000);
  }
  std::unique_ptr<StorageFile> small = Open("hello.txt");
  ASSERT_NE(small, nullptr);
  EXPECT_EQ(ReadN(*small, 100), "hello");
  EXPECT_EQ(small->Error(), 1);
  EXPECT_EQ(ReadN(*small, 100), "");
}

TEST_F(ArchiveFileTest, P5_3_02_EmptyMemberReadsZeroAtEndFromStart) {
  for (const char* name : {"empty.txt", "empty-deflated.txt"}) {
    SCOPED_TRACE(name);
    std::unique_ptr<StorageFile> file = Open(name);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->Error(), 1);
    EXPECT_EQ(file->Tell(), 0);
    char buffer[16];
    EXPECT_EQ(file->Read(buffer, sizeof buffer), 0u);
    EXPECT_EQ(file->Tell(), 0);
    EXPECT_EQ(file->Error(), 1);
  }
}

TEST_F(ArchiveFileTest, P5_3_03_SeekToEndAndBeyond) {
  for (const char* name : {"stored.txt", "deflated.txt"}) {
    SCOPED_TRACE(name);
    std::unique_ptr<StorageFile> file = Open(name);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->Seek(0, 2), 5000);
    EXPECT_EQ(file->Tell(), 5000);
    EXPECT_EQ(file->Error(), 1);
    EXPECT_EQ(file->Seek(1, 2), -1);
    EXPECT_EQ(file->Tell(), 5000);
    EXPECT_EQ(file->Seek(5001, 0), -1);
    EXPECT_EQ(file->Tell(), 5000);
    // From the middle, a target beyond the end leaves the position where it was.
    EXPECT_EQ(file->Seek(-1000, 2), 4000);
    EXPECT_EQ(file->Seek(1001, 1), -1);
    EXPECT_EQ(file->Tell(), 4000);
    EXPECT_EQ(ReadN(*file, 3), text_.substr(4000, 3));
  }
}

TEST_F(ArchiveFileTest, P5_3_04_SeekBeforeStartFromHundred) {
  std::unique_ptr<StorageFile> file = Open("deflated.txt");
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(file->Seek(100, 0), 100);
  EXPECT_EQ(file->Tell(), 100);
  EXPECT_EQ(file->Seek(-1, 0), -1);
  EXPECT_EQ(file->Tell(), 0);
  EXPECT_EQ(ReadN(*file, 4), text_.substr(0, 4));  // really back at the start
  // The same through origin 1.
  EXPECT_EQ(file->Seek(96, 1), 100);
  EXPECT_EQ(file->Seek(-101, 1), -1);
  EXPECT_EQ(file->Tell(), 0);
}

TEST_F(ArchiveFileTest, P5_3_05_SeekThenReadForwardAndBackward) {
  for (const char* name : {"stored.txt", "deflated.txt"}) {
    SCOPED_TRACE(name);
    std::unique_ptr<StorageFile> file = Open(name);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->Seek(10, 0), 10);
    EXPECT_EQ(ReadN(*file, 5), text_.substr(10, 5));
    EXPECT_EQ(file->Tell(), 15);
    EXPECT_EQ(file->Seek(2, 0), 2);
    EXPECT_EQ(ReadN(*file, 5), text_.substr(2, 5));
    EXPECT_EQ(file->Tell(), 7);
  }
}

TEST_F(ArchiveFileTest, P5_3_06_UnknownOriginReturnsMinusOne) {
  for (const char* name : {"stored.txt", "deflated.txt"}) {
    SCOPED_TRACE(name);
    std::unique_ptr<StorageFile> file = Open(name);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->Seek(20, 0), 20);
    EXPECT_EQ(file->Seek(0, 3), -1);
    EXPECT_EQ(file->Seek(5, 3), -1);
    EXPECT_EQ(file->Seek(5, -1), -1);
    EXPECT_EQ(file->Tell(), 20);  // nothing changed
    EXPECT_EQ(ReadN(*file, 3), text_.substr(20, 3));
  }
}

TEST_F(ArchiveFileTest, P5_3_07_TwoMembersReadAlternatelyInSmallPieces) {
  std::unique_ptr<StorageFile> first = Open("deflated.txt");
  std::unique_ptr<StorageFile> second = Open("other.bin");
  std::unique_ptr<StorageFile> third = Open("stored.txt");
  ASSERT_NE(first, nullptr);
  ASSERT_NE(second, nullptr);
  ASSERT_NE(third, nullptr);
  std::string a, b, c;
  for (int round = 0; round < 2000; ++round) {
    a += ReadN(*first, 7);
    b += ReadN(*second, 3);
    c += ReadN(*third, 11);
  }
  EXPECT_EQ(a, text_);
  EXPECT_EQ(b, other_);
  EXPECT_EQ(c, text_);
  EXPECT_EQ(first->Error(), 1);
  EXPECT_EQ(second->Error(), 1);
  EXPECT_EQ(third->Error(), 1);
}

TEST_F(ArchiveFileTest, P5_3_08_WriteAndResizeReturnZeroInEveryMode) {
  const std::string before = ReadHostFile(path_);
  for (uint32_t mode = 0; mode <= 5; ++mode) {
    SCOPED_TRACE(mode);
    std::unique_ptr<StorageFile> file = Open("hello.txt", mode);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->Write("HELLO WORLD", 11), 0u);
    EXPECT_FALSE(file->Resize(0));
    EXPECT_FALSE(file->Resize(100));
    EXPECT_EQ(file->Tell(), 0);
    EXPECT_EQ(ReadN(*file, 100), "hello");
    EXPECT_EQ(file->Write("x", 1), 0u);
  }
  EXPECT_EQ(ReadHostFile(path_), before);
}

// Part 5.3: Seek returns the new position (Tell gives the same number) for every origin.
TEST_F(ArchiveFileTest, SeekAnswersTheNewPositionForEveryOrigin) {
  for (const char* name : {"stored.txt", "deflated.txt"}) {
    SCOPED_TRACE(name);
    std::unique_ptr<StorageFile> file = Open(name);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->Seek(0, 0), 0);
    EXPECT_EQ(file->Seek(1234, 0), 1234);
    EXPECT_EQ(file->Seek(0, 1), 1234);
    EXPECT_EQ(file->Seek(100, 1), 1334);
    EXPECT_EQ(file->Seek(-334, 1), 1000);
    EXPECT_EQ(file->Seek(-1, 2), 4999);
    EXPECT_EQ(file->Tell(), 4999);
    EXPECT_EQ(file->Error(), 0);
    EXPECT_EQ(ReadN(*file, 10), text_.substr(4999));
    EXPECT_EQ(file->Error(), 1);
  }
}

}  // namespace
}  // namespace velfs::testing::archivetest
