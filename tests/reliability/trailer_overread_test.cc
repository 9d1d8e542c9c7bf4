// CVE-2024-39134 (src/archive/archive_io.h): Debian's zziplib 0.13.72 reads up to 2 bytes beyond
// the data of its trailer search when a ZIP64 end-of-central-directory signature starts 54 or 55
// bytes before the end of the file with no end-of-central-directory record nearer the end. Any
// host file offered as a root reaches that search through ArchiveStorage::Open
// (zzip_opendir_ext_io), so MappedOpen recognises exactly those files and their size query
// answers -1, which makes zziplib give up before searching. These tests check the predicate on
// crafted bytes, the regression inputs of fuzz/corpus/archive/ through every layer, and that
// every other trailer still gets the answer of zziplib itself (zziplib's own POSIX input, no
// guard), for archives whose comments hold fake records at every distance from the end.
#include <gtest/gtest.h>
#include <zip.h>
#include <zzip/zzip.h>

#include <fcntl.h>

#include <string>
#include <vector>

#include "archive/archive_io.h"
#include "archive/archive_storage.h"
#include "host/host.h"
#include "reliability_support.h"
#include "test_support.h"
#include "velfs.h"
#include "zip_fixture.h"

namespace velfs::reliability {
namespace {

using velfs::testing::ReadHostFile;
using velfs::testing::Stored;
using velfs::testing::WriteHostFile;
using velfs::testing::WriteZip;

const std::string kZip64Signature("PK\x06\x06", 4);
const std::string kEndSignature("PK\x05\x06", 4);

bool Flags(const std::string& bytes) {
  return ReachesTrailerOverRead(reinterpret_cast<const unsigned char*>(bytes.data()),
                                bytes.size());
}

// `size` zero bytes with `signature` starting `distance` bytes before the end.
std::string WithSignature(std::size_t size, const std::string& signature, std::size_t distance) {
  std::string bytes(size, '\0');
  bytes.replace(size - distance, signature.size(), signature);
  return bytes;
}

// The member names zziplib lists through its own POSIX input, or "<refused>".
std::string ZziplibAlone(const std::string& path) {
  zzip_error_t error = ZZIP_NO_ERROR;
  ZZIP_DIR* dir = zzip_dir_open(path.c_str(), &error);
  if (dir == nullptr) return "<refused>";
  std::string names;
  ZZIP_DIRENT entry;
  while (zzip_dir_read(dir, &entry)) names += std::string(entry.d_name) + "|";
  zzip_dir_close(dir);
  return names;
}

// The same through the library's archive back-end (mapped input, guard and all).
std::string ThroughArchiveStorage(const std::string& path) {
  std::unique_ptr<Storage> storage = OpenArchiveStorage(path, host::Stat(path));
  if (storage == nullptr) return "<refused>";
  std::unique_ptr<StorageEnum> listing = storage->CreateEnum("");
  std::string names;
  while (listing->MoveNext()) {
    char* name = nullptr;
    if (listing->GetFullName(&name)) names += std::string(name) + "|";
    std::free(name);
  }
  return names;
}

class TrailerOverReadTest : public velfs::testing::ScratchDirTest {
 protected:
  // The bytes of a libzip archive of one member whose archive comment is `length` bytes '#'.
  std::string ArchiveWithComment(std::size_t length) {
    const std::string path = PathOf("commented.zip");
    EXPECT_TRUE(WriteZip(path, {Stored("m.txt", "member")}));
    int error = 0;
    zip_t* archive = zip_open(path.c_str(), 0, &error);
    EXPECT_NE(archive, nullptr);
    const std::string comment(length, '#');
    EXPECT_EQ(zip_set_archive_comment(archive, comment.data(),
                                      static_cast<zip_uint16_t>(comment.size())),
              0);
    EXPECT_EQ(zip_close(archive), 0);
    return ReadHostFile(path);
  }
};

TEST_F(TrailerOverReadTest, OnlyAZip64SignatureAt54Or55BytesFromTheEndIsFlagged) {
  for (const std::size_t size : {56u, 100u, 600u, 1024u, 1536u, 70000u}) {
    for (std::size_t distance = 4; distance <= 70 && distance <= size; ++distance) {
      EXPECT_EQ(Flags(WithSignature(size, kZip64Signature, distance)),
                distance == 54 || distance == 55)
          << "size " << size << ", distance " << distance;
      EXPECT_FALSE(Flags(WithSignature(size, kEndSignature, distance)))
          << "size " << size << ", distance " << distance;
    }
  }
  // The shortest files: zziplib refuses fewer than 22 bytes before it reads any.
  EXPECT_FALSE(Flags(std::string()));
  EXPECT_TRUE(Flags(kZip64Signature + std::string(50, '\0')));   // 54 bytes, signature at 0
  EXPECT_TRUE(Flags(kZip64Signature + std::string(51, '\0')));   // 55 bytes
  EXPECT_FALSE(Flags(kZip64Signature + std::string(52, '\0')));  // 56: read whole
}

TEST_F(TrailerOverReadTest, AnEndRecordTheBackwardScanMeetsFirstWins) {
  for (std::size_t end = 4; end <= 60; ++end) {
    if (end >= 51 && end <= 57) continue;  // it would overlap the ZIP64 signature
    std::string bytes = WithSignature(1024, kZip64Signature, 54);
    bytes.replace(bytes.size() - end, 4, kEndSignature);
    // zziplib takes a "PK\5\6" with at least 20 bytes behind it, scanning from the end.
    EXPECT_EQ(Flags(bytes), end < 20 || end > 54) << "end record " << end << " bytes from the end";
  }
  // "PK\5" followed by another byte is no end record: the scan goes on to the ZIP64 signature.
  std::string bytes = WithSignature(1024, kZip64Signature, 55);
  bytes.replace(bytes.size() - 30, 4, std::string("PK\x05\x07", 4));
  EXPECT_TRUE(Flags(bytes));
}

TEST_F(TrailerOverReadTest, CorpusRegressionInputsAreRefusedBeforeZziplibSearchesTheTrailer) {
  for (const char* name : {"cve-2024-39134-1024.zip", "cve-2024-39134-700.zip"}) {
    SCOPED_TRACE(name);
    const std::string source = CorpusPath(std::string("archive/") + name);
    const std::string path = PathOf(name);
    const std::string bytes = ReadHostFile(source);
    ASSERT_FALSE(bytes.empty());
    WriteHostFile(path, bytes);
    // Well-formed for libzip: its end record and central directory are intact.
    const std::vector<velfs::testing::ZipEntryInfo> entries =
        velfs::testing::ReadCentralDirectory(path);
    ASSERT_EQ(entries.size(), 1u);
    EXPECT_EQ(entries[0].name, "m.txt");
    EXPECT_TRUE(Flags(bytes));

    // The mapped input maps it and serves every byte; only the size query refuses.
    const int handle = MappedOpen(path.c_str(), O_RDONLY);
    ASSERT_GT(handle, 0);
    EXPECT_EQ(MappedFileSize(handle), -1);
    EXPECT_EQ(MappedSeek(handle, 0, SEEK_END), static_cast<zzip_off_t>(bytes.size()));
    std::string tail(54, '\0');
    EXPECT_EQ(MappedSeek(handle, -54, SEEK_END), static_cast<zzip_off_t>(bytes.size() - 54));
    EXPECT_EQ(MappedRead(handle, tail.data(), tail.size()), 54);
    EXPECT_EQ(tail, bytes.substr(bytes.size() - 54));
    EXPECT_EQ(MappedClose(handle), 0);

    // No archive root, and the database back-end after it finds no database: no root at all,
    // and the file is left as it was.
    EXPECT_EQ(OpenArchiveStorage(path, host::Stat(path)), nullptr);
    EXPECT_EQ(velfsOpenDir(path.c_str()), nullptr);
    EXPECT_EQ(velfsCreateFile((path + ":m.txt").c_str(), 0), nullptr);
    EXPECT_EQ(ReadHostFile(path), bytes);
  }
}

TEST_F(TrailerOverReadTest, EveryOtherTrailerGetsZiplibsOwnAnswer) {
  // Archive comments holding a fake ZIP64 signature or a fake end record at every distance from
  // the end from 20 to 120 bytes, in files of three sizes (two of them multiples of 512). libzip
  // writes only text comments, so the signatures are put into the comment's bytes afterwards.
  const std::size_t plainSize = ArchiveWithComment(0).size();
  ASSERT_GT(plainSize, 0u);
  const std::string path = PathOf("variant.zip");
  int compared = 0;
  int opened = 0;
  int refused = 0;
  for (const std::size_t size : {plainSize + 200, std::size_t{1024}, std::size_t{1536}}) {
    const std::string base = ArchiveWithComment(size - plainSize);
    ASSERT_EQ(base.size(), size);
    for (const std::string& signature : {kZip64Signature, kEndSignature}) {
      for (std::size_t distance = 20; distance <= 120; ++distance) {
        SCOPED_TRACE("size " + std::to_string(size) + ", signature PK" +
                     std::to_string(signature[2]) + std::to_string(signature[3]) +
                     ", distance " + std::to_string(distance));
        std::string bytes = base;
        bytes.replace(size - distance, signature.size(), signature);
        WriteHostFile(path, bytes);
        if (Flags(bytes)) {
          EXPECT_TRUE(signature == kZip64Signature && (distance == 54 || distance == 55));
          EXPECT_EQ(ThroughArchiveStorage(path), "<refused>");
          ++refused;
        } else {
          const std::string listed = ZziplibAlone(path);
          EXPECT_EQ(ThroughArchiveStorage(path), listed);
          ++compared;
          opened += listed == "m.txt|" ? 1 : 0;
        }
      }
    }
  }
  EXPECT_EQ(refused, 6);  // distances 54 and 55 in each of the three sizes
  EXPECT_EQ(compared, 3 * 2 * 101 - 6);
  // A ZIP64 signature 20 to 53 bytes from the end is passed over and the real end record found;
  // the fake records farther out are taken and, pointing nowhere, refused.
  EXPECT_EQ(opened, 3 * 34);
}

}  // namespace
}  // namespace velfs::reliability
