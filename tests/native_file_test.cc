// Part 4.2: NativeFile, through the exported file functions on a native root, with every result
// compared to the bytes on disk.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <string>

#include "core/handle_records.h"
#include "native/native_file.h"
#include "native_test_support.h"

namespace velfs::testing {
namespace {

class NativeFileTest : public NativeRootTest {
 protected:
  FilePtr Open(const char* path, uint32_t mode) {
    return FilePtr(velfsCreateFileIndir(dir_handle_.get(), path, mode));
  }

  // Reads up to `size` bytes at the current position.
  static std::string ReadSome(FileHandle* file, std::size_t size) {
    std::string buffer(size, '\0');
    buffer.resize(velfsRead(file, buffer.data(), size));
    return buffer;
  }

  static uint64_t WriteText(FileHandle* file, const std::string& text) {
    return velfsWrite(file, text.data(), text.size());
  }
};

TEST_F(NativeFileTest, P4_2_01_WriteOnReadOnlyFileWritesNothing) {
  WriteHostFile(PathOf("f.txt"), "original");
  FilePtr file = Open("f.txt", 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(WriteText(file.get(), "XXXX"), 0u);
  EXPECT_EQ(velfsTell(file.get()), 0);
  EXPECT_EQ(ReadSome(file.get(), 100), "original");
  file.reset();
  EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "original");
}

TEST_F(NativeFileTest, P4_2_02_ReadAtEndReturnsZeroThenErrorIsSet) {
  WriteHostFile(PathOf("f.txt"), "abc");
  FilePtr file = Open("f.txt", 0);
  ASSERT_NE(file, nullptr);
  EXPECT_FALSE(velfsError(file.get()));  // a fresh stream has not met the end
  EXPECT_EQ(velfsSeek(file.get(), 0, 2), 0);
  char byte = 0;
  EXPECT_EQ(velfsRead(file.get(), &byte, 1), 0u);
  EXPECT_TRUE(velfsError(file.get()));
  // The same, on the back-end object: Error answers non-zero.
  auto* native = dynamic_cast<NativeFile*>(&Record(file.get())->file());
  ASSERT_NE(native, nullptr);
  EXPECT_NE(native->Error(), 0);
}

TEST_F(NativeFileTest, P4_2_03_SeekToEndThenTellGivesSize) {
  WriteHostFile(PathOf("f.txt"), std::string(1234, 'q'));
  FilePtr file = Open("f.txt", 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsSeek(file.get(), 0, 2), 0);  // 0 on success, not the position
  EXPECT_EQ(velfsTell(file.get()), 1234);

  WriteHostFile(PathOf("empty.txt"), "");
  FilePtr empty = Open("empty.txt", 0);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(velfsSeek(empty.get(), 0, 2), 0);
  EXPECT_EQ(velfsTell(empty.get()), 0);
}

TEST_F(NativeFileTest, P4_2_04_SeekNegativeAbsoluteFails) {
  WriteHostFile(PathOf("f.txt"), "0123456789");
  FilePtr file = Open("f.txt", 0);
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(velfsSeek(file.get(), 3, 0), 0);
  EXPECT_EQ(velfsSeek(file.get(), -1, 0), -1);
  EXPECT_EQ(velfsTell(file.get()), 3);
  EXPECT_EQ(velfsSeek(file.get(), -4, 1), -1);  // 3 - 4 < 0
  EXPECT_EQ(velfsTell(file.get()), 3);
  EXPECT_EQ(velfsSeek(file.get(), -11, 2), -1);  // 10 - 11 < 0
  EXPECT_EQ(velfsTell(file.get()), 3);
  EXPECT_EQ(ReadSome(file.get(), 2), "34");
}

TEST_F(NativeFileTest, P4_2_05_ModesTruncateKeepAppendOrFail) {
  for (uint32_t mode : {1u, 4u}) {
    SCOPED_TRACE(mode);
    WriteHostFile(PathOf("f.txt"), "existing");
    FilePtr file = Open("f.txt", mode);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "");  // emptied by the open itself
    EXPECT_EQ(velfsSeek(file.get(), 0, 2), 0);
    EXPECT_EQ(velfsTell(file.get()), 0);
  }
  for (uint32_t mode : {2u, 5u}) {
    SCOPED_TRACE(mode);
    WriteHostFile(PathOf("f.txt"), "existing");
    FilePtr file = Open("f.txt", mode);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "existing");
    EXPECT_EQ(WriteText(file.get(), "+more"), 5u);
    file.reset();
    EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "existing+more");
  }
  for (uint32_t mode : {0u, 3u}) {
    SCOPED_TRACE(mode);
    EXPECT_EQ(Open("missing.txt", mode), nullptr);
    EXPECT_FALSE(ExistsOnDisk(PathOf("missing.txt")));
  }
}

// The caller positions with Seek between a write and a read; NativeFile adds none of its own,
// and with that Seek(0, 1) the read returns the bytes that follow the write.
TEST_F(NativeFileTest, P4_2_06_UpdateModeReadAfterWriteNeedsCallersSeek) {
  {  // mode 3 "rb+": overwrite two bytes at the start, then read on.
    WriteHostFile(PathOf("f3.txt"), "abcdef");
    FilePtr file = Open("f3.txt", 3);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(WriteText(file.get(), "XY"), 2u);
    EXPECT_EQ(velfsSeek(file.get(), 0, 1), 0);
    EXPECT_EQ(velfsTell(file.get()), 2);
    EXPECT_EQ(ReadSome(file.get(), 2), "cd");
    file.reset();
    EXPECT_EQ(ReadHostFile(PathOf("f3.txt")), "XYcdef");
  }
  {  // mode 4 "wb+": write, rewind, overwrite the first two bytes, then read on.
    FilePtr file = Open("f4.txt", 4);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(WriteText(file.get(), "hello world"), 11u);
    EXPECT_EQ(velfsSeek(file.get(), 0, 0), 0);
    EXPECT_EQ(WriteText(file.get(), "HE"), 2u);
    EXPECT_EQ(velfsSeek(file.get(), 0, 1), 0);
    EXPECT_EQ(ReadSome(file.get(), 3), "llo");
    file.reset();
    EXPECT_EQ(ReadHostFile(PathOf("f4.txt")), "HEllo world");
  }
  {  // mode 5 "ab+": the write lands at the end; the position follows it.
    WriteHostFile(PathOf("f5.txt"), "abcdef");
    FilePtr file = Open("f5.txt", 5);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(WriteText(file.get(), "XY"), 2u);
    EXPECT_EQ(velfsSeek(file.get(), 0, 1), 0);
    EXPECT_EQ(velfsTell(file.get()), 8);
    EXPECT_EQ(ReadSome(file.get(), 4), "");
    EXPECT_EQ(velfsSeek(file.get(), -4, 2), 0);
    EXPECT_EQ(ReadSome(file.get(), 4), "efXY");
    file.reset();
    EXPECT_EQ(ReadHostFile(PathOf("f5.txt")), "abcdefXY");
  }
}

TEST_F(NativeFileTest, P4_2_07_ResizeReturnsZeroAndChangesNothing) {
  WriteHostFile(PathOf("f.txt"), "0123456789");
  FilePtr file = Open("f.txt", 3);
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(velfsSeek(file.get(), 4, 0), 0);
  EXPECT_FALSE(velfsResize(file.get(), 2));
  EXPECT_FALSE(velfsResize(file.get(), 100));
  EXPECT_FALSE(velfsResize(file.get(), 0));
  EXPECT_FALSE(Record(file.get())->file().Resize(5));  // the operation itself answers 0
  EXPECT_EQ(velfsTell(file.get()), 4);
  EXPECT_EQ(ReadSome(file.get(), 100), "456789");
  file.reset();
  EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "0123456789");
}

TEST_F(NativeFileTest, P4_2_08_DestroyAfterWritesLeavesBytesOnDisk) {
  FilePtr file = Open("f.txt", 1);
  ASSERT_NE(file, nullptr);
  const std::string bytes("written\0with\r\nbinary\xff", 22);
  EXPECT_EQ(WriteText(file.get(), bytes), bytes.size());
  file.reset();  // fclose writes the buffered bytes out
  EXPECT_EQ(ReadHostFile(PathOf("f.txt")), bytes);  // "b": no newline translation

  // Also through a handle that owns its storage (velfsCreateFile).
  FilePtr own(velfsCreateFile(PathOf("f.txt").c_str(), 3));
  ASSERT_NE(own, nullptr);
  ASSERT_EQ(velfsSeek(own.get(), 0, 0), 0);
  EXPECT_EQ(WriteText(own.get(), "W"), 1u);
  own.reset();
  EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "W" + bytes.substr(1));
}

// ---- The six open modes, each round-tripped against the bytes on disk. ----

TEST_F(NativeFileTest, NativeMode0RbReadsExistingFile) {
  WriteHostFile(PathOf("f.txt"), "hello world");
  FilePtr file = Open("f.txt", 0);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(ReadSome(file.get(), 5), "hello");
  EXPECT_EQ(velfsTell(file.get()), 5);
  EXPECT_EQ(ReadSome(file.get(), 100), " world");
  ASSERT_EQ(velfsSeek(file.get(), 6, 0), 0);
  EXPECT_EQ(ReadSome(file.get(), 5), "world");
  EXPECT_EQ(WriteText(file.get(), "x"), 0u);
  file.reset();
  EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "hello world");
}

TEST_F(NativeFileTest, NativeMode1WbTruncatesAndWrites) {
  WriteHostFile(PathOf("f.txt"), "0123456789");
  FilePtr file = Open("f.txt", 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(std::filesystem::file_size(PathOf("f.txt")), 0u);
  EXPECT_EQ(WriteText(file.get(), "ab"), 2u);
  EXPECT_EQ(velfsTell(file.get()), 2);
  char byte = 0;
  EXPECT_EQ(velfsRead(file.get(), &byte, 1), 0u);  // "wb" cannot read
  file.reset();
  EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "ab");
}

TEST_F(NativeFileTest, NativeMode2AbAppendsEvenAfterSeekToStart) {
  WriteHostFile(PathOf("f.txt"), "0123");
  FilePtr file = Open("f.txt", 2);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsSeek(file.get(), 0, 0), 0);
  EXPECT_EQ(WriteText(file.get(), "XY"), 2u);
  EXPECT_EQ(velfsSeek(file.get(), 0, 0), 0);
  EXPECT_EQ(WriteText(file.get(), "Z"), 1u);
  EXPECT_EQ(velfsTell(file.get()), 7);
  file.reset();
  EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "0123XYZ");
}

TEST_F(NativeFileTest, NativeMode3RbPlusOverwritesInPlaceWithoutTruncating) {
  WriteHostFile(PathOf("f.txt"), "0123456789");
  FilePtr file = Open("f.txt", 3);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "0123456789");  // opening keeps the contents
  EXPECT_EQ(ReadSome(file.get(), 2), "01");
  EXPECT_EQ(velfsSeek(file.get(), 0, 1), 0);  // input to output needs a positioning
  EXPECT_EQ(WriteText(file.get(), "AB"), 2u);
  EXPECT_EQ(velfsSeek(file.get(), 0, 0), 0);
  EXPECT_EQ(ReadSome(file.get(), 100), "01AB456789");
  file.reset();
  EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "01AB456789");
}

TEST_F(NativeFileTest, NativeMode4WbPlusTruncatesAndReadsBack) {
  WriteHostFile(PathOf("f.txt"), "old content");
  FilePtr file = Open("f.txt", 4);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(std::filesystem::file_size(PathOf("f.txt")), 0u);
  EXPECT_EQ(WriteText(file.get(), "new"), 3u);
  EXPECT_EQ(velfsSeek(file.get(), 0, 0), 0);
  EXPECT_EQ(ReadSome(file.get(), 100), "new");
  file.reset();
  EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "new");
}

TEST_F(NativeFileTest, NativeMode5AbPlusReadsAnywhereWritesAtEnd) {
  WriteHostFile(PathOf("f.txt"), "0123456789");
  FilePtr file = Open("f.txt", 5);
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(velfsSeek(file.get(), 3, 0), 0);
  EXPECT_EQ(ReadSome(file.get(), 2), "34");
  EXPECT_EQ(velfsSeek(file.get(), 0, 1), 0);  // input to output needs a positioning
  EXPECT_EQ(WriteText(file.get(), "XY"), 2u);  // lands at the end, not at 5
  EXPECT_EQ(velfsTell(file.get()), 12);
  EXPECT_EQ(velfsSeek(file.get(), 0, 0), 0);
  EXPECT_EQ(ReadSome(file.get(), 100), "0123456789XY");
  file.reset();
  EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "0123456789XY");
}

TEST_F(NativeFileTest, NativeModesCreateMissingParentsExceptReadModes) {
  for (uint32_t mode : {1u, 2u, 4u, 5u}) {
    SCOPED_TRACE(mode);
    const std::string top = "m" + std::to_string(mode);
    FilePtr file = Open((top + "/deep/f.txt").c_str(), mode);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(WriteText(file.get(), top), 2u);
    file.reset();
    EXPECT_TRUE(IsDirectoryOnDisk(PathOf(top)));
    EXPECT_TRUE(IsDirectoryOnDisk(PathOf(top + "/deep")));
    EXPECT_EQ(ReadHostFile(PathOf(top + "/deep/f.txt")), top);
  }
  for (uint32_t mode : {0u, 3u}) {
    SCOPED_TRACE(mode);
    const std::string top = "m" + std::to_string(mode);
    EXPECT_EQ(Open((top + "/deep/f.txt").c_str(), mode), nullptr);
    EXPECT_FALSE(ExistsOnDisk(PathOf(top)));
  }
}

// Part 4.2 leaves modes whose low three bits are 6 or 7 to the implementer: they fail.
TEST_F(NativeFileTest, NativeModeSixOrSevenFails) {
  WriteHostFile(PathOf("f.txt"), "keep");
  for (uint32_t mode : {6u, 7u, 14u, 15u}) {
    SCOPED_TRACE(mode);
    EXPECT_EQ(Open("f.txt", mode), nullptr);
    EXPECT_EQ(Open("new.txt", mode), nullptr);
    EXPECT_EQ(FilePtr(velfsCreateFile(PathOf("f.txt").c_str(), mode)), nullptr);
  }
  EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "keep");
  EXPECT_FALSE(ExistsOnDisk(PathOf("new.txt")));
}

// Part 4.2: only the low three bits select the mode, so 8 acts as 0 and 9 as 1.
TEST_F(NativeFileTest, NativeModeUsesLowThreeBits) {
  WriteHostFile(PathOf("f.txt"), "content");
  {
    FilePtr file = Open("f.txt", 8);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(ReadSome(file.get(), 100), "content");
    EXPECT_EQ(WriteText(file.get(), "x"), 0u);
  }
  {
    FilePtr file = Open("f.txt", 9);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(ReadHostFile(PathOf("f.txt")), "");
  }
}

// A file larger than 2 GiB: positions are 64-bit underneath, but Tell of a position beyond
// INT32_MAX answers -1, never a wrapped value.
TEST_F(NativeFileTest, NativeFileBeyondTwoGiBTellAnswersMinusOne) {
  constexpr off_t kSize = off_t{3} << 30;  // 3 GiB, sparse
  const std::string path = PathOf("big.bin");
  const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
  ASSERT_GE(fd, 0);
  const bool sized = ::ftruncate(fd, kSize) == 0 && ::pwrite(fd, "Z", 1, kSize - 1) == 1;
  ::close(fd);
  if (!sized) GTEST_SKIP() << "the file system cannot hold a sparse 3 GiB file";
  struct stat status;
  ASSERT_EQ(::stat(path.c_str(), &status), 0);
  ASSERT_EQ(status.st_size, kSize);
  EXPECT_LT(status.st_blocks * 512, off_t{16} << 20) << "expected a sparse file";

  FilePtr file(velfsCreateFile(path.c_str(), 0));
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsSeek(file.get(), 0, 2), 0);
  EXPECT_EQ(velfsTell(file.get()), -1);
  EXPECT_EQ(velfsSeek(file.get(), -1, 2), 0);
  EXPECT_EQ(velfsTell(file.get()), -1);
  char byte = 0;
  EXPECT_EQ(velfsRead(file.get(), &byte, 1), 1u);
  EXPECT_EQ(byte, 'Z');
  EXPECT_EQ(velfsRead(file.get(), &byte, 1), 0u);
  EXPECT_TRUE(velfsError(file.get()));
  EXPECT_EQ(velfsSeek(file.get(), 0, 0), 0);
  EXPECT_EQ(velfsTell(file.get()), 0);
  // The last position that fits, and the first that does not.
  EXPECT_EQ(velfsSeek(file.get(), INT32_MAX, 0), 0);
  EXPECT_EQ(velfsTell(file.get()), INT32_MAX);
  EXPECT_EQ(velfsSeek(file.get(), 1, 1), 0);
  EXPECT_EQ(velfsTell(file.get()), -1);
  EXPECT_EQ(velfsRead(file.get(), &byte, 1), 1u);
  EXPECT_EQ(byte, '\0');
}

}  // namespace
}  // namespace velfs::testing
