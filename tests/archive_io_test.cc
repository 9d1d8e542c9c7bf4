// Part 5.1: the mapped archive input. MappedOpen, MappedRead, MappedSeek, MappedFileSize and
// MappedClose are called directly with the handles they hand out.
//
// P5.1-07 (Windows share modes): POSIX has no share modes. MappedOpen opens with open(O_RDONLY)
// and mmap; nothing on Linux stops another descriptor or process from opening the archive file,
// for reading or for writing, while it is mapped (file_mapping.h says the same). The Windows half
// "cannot be opened for writing" therefore has no Linux counterpart and is left out; the test
// under that id checks what does hold here: others can open and read the file while it is
// mapped, and the mapping stays readable.
#include "archive/archive_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <set>
#include <string>

#include "archive_test_support.h"

namespace velfs::testing::archivetest {
namespace {

class ArchiveIoTest : public ArchiveTest {
 protected:
  // A plain file of known bytes; MappedOpen maps any file, ZIP or not.
  std::string MakeFile(const std::string& name, const std::string& bytes) {
    const std::string path = PathOf(name);
    WriteHostFile(path, bytes);
    return path;
  }
  // A sparse file of `length` bytes: ftruncate reserves no disk blocks.
  std::string MakeSparseFile(const std::string& name, off_t length) {
    const std::string path = PathOf(name);
    const int descriptor = ::open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    EXPECT_GE(descriptor, 0);
    EXPECT_EQ(::ftruncate(descriptor, length), 0);
    ::close(descriptor);
    return path;
  }
  static int Open(const std::string& path) { return MappedOpen(path.c_str(), O_RDONLY); }
  static std::string Read(int handle, std::size_t count) {
    std::string bytes(count, '\0');
    const zzip_ssize_t got = MappedRead(handle, bytes.data(), count);
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
  }
};

TEST_F(ArchiveIoTest, P5_1_01_NonAsciiArchivePathOpens) {
  const std::string path =
      MakeZip("Archiv-\xC3\xBC\xC3\x9F-\xD0\xB0\xD1\x80\xD1\x85\xD0\xB8\xD0\xB2-\xE6\x97\xA5.zip",
              {Stored("docs/a.txt", "alpha")});
  const std::string bytes = ReadHostFile(path);
  ASSERT_FALSE(bytes.empty());

  const int handle = Open(path);
  ASSERT_GT(handle, 0);
  EXPECT_EQ(MappedFileSize(handle), static_cast<zzip_off_t>(bytes.size()));
  EXPECT_EQ(Read(handle, bytes.size()), bytes);
  EXPECT_EQ(MappedClose(handle), 0);

  // And through zziplib: the archive storage over that path reads its member.
  std::unique_ptr<Storage> storage = OpenArchive(path);
  ASSERT_NE(storage, nullptr);
  EXPECT_EQ(ReadMember(*storage, "docs/a.txt"), "alpha");
}

TEST_F(ArchiveIoTest, P5_1_02_SizeLimitsZeroRefusedTwoGiBAcceptedOneMoreRefused) {
  // Length 0 cannot be mapped.
  EXPECT_EQ(Open(MakeFile("empty", "")), -1);

  // Exactly 2,147,483,648 bytes (sparse, no disk): opens, and the signed 32-bit size is negative.
  const std::string limit = MakeSparseFile("limit", 2147483648LL);
  const int handle = Open(limit);
  ASSERT_GT(handle, 0);
  EXPECT_EQ(MappedFileSize(handle), -2147483648LL);
  EXPECT_LT(MappedFileSize(handle), 0);
  // The whole length is reachable: a seek to the end is inside the file.
  EXPECT_EQ(MappedSeek(handle, 0, SEEK_END), 2147483648LL);
  EXPECT_EQ(MappedSeek(handle, -4, SEEK_END), 2147483644LL);
  EXPECT_EQ(Read(handle, 16), std::string(4, '\0'));
  EXPECT_EQ(MappedClose(handle), 0);
  // zziplib takes the negative size as a failure: never an archive (Parts 5.1 and 5.2).
  EXPECT_EQ(OpenArchive(limit), nullptr);

  // One byte more is refused.
  EXPECT_EQ(Open(MakeSparseFile("over", 2147483649LL)), -1);
}

TEST_F(ArchiveIoTest, P5_1_03_ReadPastTheRestReturnsTheRestThenZero) {
  const int handle = Open(MakeFile("ten", "0123456789"));
  ASSERT_GT(handle, 0);
  EXPECT_EQ(MappedSeek(handle, 4, SEEK_SET), 4);
  std::string buffer(100, '#');
  EXPECT_EQ(MappedRead(handle, buffer.data(), buffer.size()), 6);
  EXPECT_EQ(buffer.substr(0, 6), "456789");
  EXPECT_EQ(buffer.substr(6), std::string(94, '#'));  // nothing written past the rest
  EXPECT_EQ(MappedSeek(handle, 0, SEEK_CUR), 10);     // position == size
  EXPECT_EQ(MappedRead(handle, buffer.data(), buffer.size()), 0);
  EXPECT_EQ(MappedRead(handle, buffer.data(), 1), 0);
  EXPECT_EQ(MappedSeek(handle, 0, SEEK_CUR), 10);
  EXPECT_EQ(MappedClose(handle), 0);
}

TEST_F(ArchiveIoTest, P5_1_04_SeekEndAndOutsideTheFile) {
  const int handle = Open(MakeFile("ten", "0123456789"));
  ASSERT_GT(handle, 0);
  EXPECT_EQ(MappedSeek(handle, 0, SEEK_END), 10);  // size
  EXPECT_EQ(MappedSeek(handle, 3, SEEK_SET), 3);
  EXPECT_EQ(MappedSeek(handle, 1, SEEK_END), 3);  // beyond size: unchanged position
  EXPECT_EQ(Read(handle, 1), "3");                // and it really did not move
  EXPECT_EQ(MappedSeek(handle, 0, SEEK_SET), 0);
  EXPECT_EQ(MappedSeek(handle, -1, SEEK_CUR), 0);  // wraps beyond size: stays at 0
  EXPECT_EQ(Read(handle, 2), "01");
  EXPECT_EQ(MappedSeek(handle, 10, SEEK_SET), 10);  // exactly size is inside
  EXPECT_EQ(MappedSeek(handle, 11, SEEK_SET), 10);
  EXPECT_EQ(MappedSeek(handle, -10, SEEK_END), 0);
  EXPECT_EQ(MappedClose(handle), 0);
}

TEST_F(ArchiveIoTest, P5_1_05_UnknownWhenceAnswersPositionWithoutMoving) {
  const int handle = Open(MakeFile("ten", "0123456789"));
  ASSERT_GT(handle, 0);
  EXPECT_EQ(MappedSeek(handle, 6, SEEK_SET), 6);
  EXPECT_EQ(MappedSeek(handle, 2, 3), 6);
  EXPECT_EQ(MappedSeek(handle, 0, 3), 6);
  EXPECT_EQ(MappedSeek(handle, -5, 3), 6);
  EXPECT_EQ(Read(handle, 2), "67");
  EXPECT_EQ(MappedClose(handle), 0);
}

TEST_F(ArchiveIoTest, P5_1_06_HandleZeroAndUnknownHandlesAnswerMinusOne) {
  char buffer[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
  EXPECT_EQ(MappedRead(0, buffer, sizeof buffer), -1);
  EXPECT_EQ(MappedSeek(0, 0, SEEK_SET), -1);
  EXPECT_EQ(MappedSeek(0, 0, SEEK_END), -1);
  EXPECT_EQ(MappedFileSize(0), -1);
  EXPECT_EQ(MappedClose(0), -1);
  EXPECT_EQ(std::string(buffer, sizeof buffer), "xxxxxxxx");  // nothing copied

  // A closed handle and values that were never handed out are bad handles too.
  const int handle = Open(MakeFile("ten", "0123456789"));
  ASSERT_GT(handle, 0);
  EXPECT_EQ(MappedClose(handle), 0);
  for (const int bad : {handle, -1, 4711}) {
    EXPECT_EQ(MappedRead(bad, buffer, sizeof buffer), -1) << bad;
    EXPECT_EQ(MappedSeek(bad, 0, SEEK_SET), -1) << bad;
    EXPECT_EQ(MappedFileSize(bad), -1) << bad;
    EXPECT_EQ(MappedClose(bad), -1) << bad;
  }
  EXPECT_EQ(Open(PathOf("missing")), -1);
  EXPECT_EQ(Open(PathOf("")), -1);  // a directory
}

TEST_F(ArchiveIoTest, P5_1_07_OthersCanReadTheArchiveWhileItIsMapped) {
  // No share modes on POSIX (see the head of this file): only the reading half is checked.
  const std::string path = MakeZip("shared.zip", {Stored("a.txt", "shared bytes")});
  const std::string bytes = ReadHostFile(path);
  const int handle = Open(path);
  ASSERT_GT(handle, 0);

  // Another descriptor of this process reads it.
  const int descriptor = ::open(path.c_str(), O_RDONLY);
  ASSERT_GE(descriptor, 0);
  std::string other(bytes.size(), '\0');
  EXPECT_EQ(::read(descriptor, other.data(), other.size()), static_cast<ssize_t>(bytes.size()));
  EXPECT_EQ(other, bytes);
  ::close(descriptor);

  // Another process reads it.
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    char head[4];
    const bool ok = fd >= 0 && ::read(fd, head, 4) == 4 && std::memcmp(head, "PK\3\4", 4) == 0;
    ::_exit(ok ? 0 : 1);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);

  // The mapping is still whole and readable.
  EXPECT_EQ(MappedSeek(handle, 0, SEEK_SET), 0);
  EXPECT_EQ(Read(handle, bytes.size() + 10), bytes);
  EXPECT_EQ(MappedClose(handle), 0);
}

// Part 5.1, left to the implementer within limits: handles are greater than 0, unique among
// open records, and stay valid until MappedClose; and FillArchiveIo sets the five slots.
TEST_F(ArchiveIoTest, HandlesArePositiveUniqueAndIndependent) {
  const int first = Open(MakeFile("one", "first file"));
  const int second = Open(MakeFile("two", "second"));
  const int third = Open(MakeFile("one", "first file"));  // the same file twice
  ASSERT_GT(first, 0);
  ASSERT_GT(second, 0);
  ASSERT_GT(third, 0);
  EXPECT_EQ((std::set<int>{first, second, third}).size(), 3u);
  EXPECT_EQ(MappedFileSize(first), 10);
  EXPECT_EQ(MappedFileSize(second), 6);
  EXPECT_EQ(MappedSeek(first, 6, SEEK_SET), 6);
  EXPECT_EQ(Read(third, 5), "first");  // each record has its own position
  EXPECT_EQ(Read(first, 4), "file");
  EXPECT_EQ(MappedClose(second), 0);
  EXPECT_EQ(Read(first, 1), "");  // still valid after another record closed
  EXPECT_EQ(MappedSeek(third, 0, SEEK_SET), 0);
  EXPECT_EQ(Read(third, 3), "fir");
  const int fourth = Open(MakeFile("three", "3"));
  ASSERT_GT(fourth, 0);
  EXPECT_NE(fourth, first);
  EXPECT_NE(fourth, third);
  EXPECT_EQ(MappedClose(first), 0);
  EXPECT_EQ(MappedClose(third), 0);
  EXPECT_EQ(MappedClose(fourth), 0);

  zzip_plugin_io_handlers* io = FillArchiveIo();
  ASSERT_NE(io, nullptr);
  EXPECT_EQ(io->fd.open, &MappedOpen);
  EXPECT_EQ(io->fd.close, &MappedClose);
  EXPECT_EQ(io->fd.read, &MappedRead);
  EXPECT_EQ(io->fd.seeks, &MappedSeek);
  EXPECT_EQ(io->fd.filesize, &MappedFileSize);
  EXPECT_EQ(io->fd.sys, 0);
  EXPECT_EQ(io->fd.type, 1);
  EXPECT_EQ(FillArchiveIo(), io);  // one static table
}

}  // namespace
}  // namespace velfs::testing::archivetest
