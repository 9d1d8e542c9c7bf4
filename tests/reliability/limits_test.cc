// Size limits (issue 8; CTest label "limits", built without sanitizers only): a host file of
// 3 GiB and a database file of more than 2 GiB, written and read back through the library in a
// temporary directory on disk, which the tests remove. The API's positions are signed 32-bit:
// where a position does not fit, velfsTell answers -1; velfsSeek still reaches it from the end or
// from the current position; reads and writes of any size work. A file of more than 2 GiB is neither an
// archive (Part 5.1) nor a database, so it is no root, and offering it changes nothing. A database
// row holds at most 1,000,000,000 bytes (Debian's SQLite): a longer write answers 0 and stores
// nothing.
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/statvfs.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>

#include "reliability_support.h"
#include "test_support.h"
#include "velfs.h"

namespace velfs::reliability {
namespace {

constexpr uint64_t kMiB = 1ull << 20;
constexpr uint64_t kGiB = 1ull << 30;
constexpr uint64_t kChunk = 256 * kMiB;

struct FreeDeleter {
  void operator()(void* block) const { std::free(block); }
};
using Buffer = std::unique_ptr<unsigned char[], FreeDeleter>;

Buffer Allocate(uint64_t size) {
  return Buffer(static_cast<unsigned char*>(std::malloc(static_cast<std::size_t>(size))));
}

// The 8-byte word at every multiple of 8 of a file is `tag` + its own offset, so that any slice
// can be checked without keeping the file's content.
void Fill(unsigned char* bytes, uint64_t offset, uint64_t size, uint64_t tag) {
  for (uint64_t at = 0; at < size; at += 8) {
    const uint64_t word = tag + offset + at;
    std::memcpy(bytes + at, &word, 8);
  }
}

// Counts the words of a slice that differ from Fill's.
uint64_t Mismatches(const unsigned char* bytes, uint64_t offset, uint64_t size, uint64_t tag) {
  uint64_t wrong = 0;
  for (uint64_t at = 0; at + 8 <= size; at += 8) {
    uint64_t word = 0;
    std::memcpy(&word, bytes + at, 8);
    wrong += word != tag + offset + at ? 1 : 0;
  }
  return wrong;
}

int32_t Expected32(uint64_t position) {
  return position <= INT32_MAX ? static_cast<int32_t>(position) : -1;
}

class LimitsTest : public velfs::testing::ScratchDirTest {
 protected:
  void SetUp() override {
    velfs::testing::ScratchDirTest::SetUp();
    struct statvfs space;
    ASSERT_EQ(::statvfs(PathOf().c_str(), &space), 0);
    const uint64_t available = static_cast<uint64_t>(space.f_bavail) * space.f_frsize;
    if (available < 4 * kGiB) {
      GTEST_SKIP() << "needs 4 GiB free in " << PathOf() << ", has " << available / kMiB
                   << " MiB";
    }
  }
};

TEST_F(LimitsTest, HostFileOfThreeGiBIsWrittenAndReadWhole) {
  constexpr uint64_t kSize = 3 * kGiB;
  constexpr uint64_t kTag = 0x5A00000000000000ull;
  const std::string directory = PathOf("native");
  std::filesystem::create_directory(directory);
  DirHandle* dir = velfsOpenDir(directory.c_str());
  ASSERT_NE(dir, nullptr);

  FileHandle* file = velfsCreateFileIndir(dir, "big.bin", 1);
  ASSERT_NE(file, nullptr);
  Buffer chunk = Allocate(kChunk);
  ASSERT_NE(chunk, nullptr);
  for (uint64_t offset = 0; offset < kSize; offset += kChunk) {
    Fill(chunk.get(), offset, kChunk, kTag);
    ASSERT_EQ(velfsWrite(file, chunk.get(), kChunk), kChunk) << "at " << offset;
    EXPECT_EQ(velfsTell(file), Expected32(offset + kChunk));
  }
  velfsCloseFile(file);
  EXPECT_EQ(std::filesystem::file_size(directory + "/big.bin"), kSize);

  file = velfsCreateFileIndir(dir, "big.bin", 0);
  ASSERT_NE(file, nullptr);
  // Native Seek answers 0 on success (Part 4.2) and reaches the end from origin 2, but the
  // position there does not fit the 32-bit result of Tell.
  EXPECT_EQ(velfsSeek(file, 0, 2), 0);
  EXPECT_EQ(velfsTell(file), -1);
  EXPECT_EQ(velfsSeek(file, -16, 1), 0);
  unsigned char last[16];
  ASSERT_EQ(velfsRead(file, last, sizeof last), sizeof last);
  EXPECT_EQ(Mismatches(last, kSize - 16, sizeof last, kTag), 0u);
  EXPECT_EQ(velfsRead(file, last, sizeof last), 0u);
  EXPECT_EQ(velfsSeek(file, -1, 0), -1);  // before the start: unreachable
  EXPECT_EQ(velfsSeek(file, INT32_MAX - 7, 0), 0);
  EXPECT_EQ(velfsTell(file), INT32_MAX - 7);
  unsigned char across[16];
  ASSERT_EQ(velfsRead(file, across, sizeof across), sizeof across);  // across 2^31
  EXPECT_EQ(Mismatches(across, INT32_MAX - 7, sizeof across, kTag), 0u);
  EXPECT_EQ(velfsTell(file), -1);
  EXPECT_EQ(velfsSeek(file, 0, 0), 0);

  // One read of 2 GiB and 4 KiB (a count beyond the signed 32-bit range), then the rest.
  constexpr uint64_t kFirstRead = 2 * kGiB + 4096;
  Buffer whole = Allocate(kFirstRead);
  ASSERT_NE(whole, nullptr);
  ASSERT_EQ(velfsRead(file, whole.get(), kFirstRead), kFirstRead);
  EXPECT_EQ(Mismatches(whole.get(), 0, kFirstRead, kTag), 0u);
  whole.reset();
  uint64_t offset = kFirstRead;
  for (uint64_t count; (count = velfsRead(file, chunk.get(), kChunk)) > 0; offset += count) {
    ASSERT_EQ(Mismatches(chunk.get(), offset, count, kTag), 0u) << "at " << offset;
  }
  EXPECT_EQ(offset, kSize);
  velfsCloseFile(file);
  velfsCloseDir(dir);

  // Offered as a root, it is neither an archive (more than 2 GiB) nor a database; untouched.
  const std::string big = directory + "/big.bin";
  EXPECT_EQ(velfsOpenDir(big.c_str()), nullptr);
  EXPECT_EQ(velfsCreateFile((big + ":inner.txt").c_str(), 1), nullptr);
  velFSMountPath("bighost:", big.c_str());
  EXPECT_EQ(velFSCreateStub("bighost:inner.txt", 1), nullptr);
  velFSUnmountPath("bighost:");
  EXPECT_EQ(std::filesystem::file_size(big), kSize);
  file = velfsCreateFile(big.c_str(), 0);
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(velfsRead(file, chunk.get(), 4096), 4096u);
  EXPECT_EQ(Mismatches(chunk.get(), 0, 4096, kTag), 0u);
  velfsCloseFile(file);
}

TEST_F(LimitsTest, DatabaseFileBeyondTwoGiBKeepsEveryFile) {
  constexpr int kFiles = 9;  // 9 x 256 MiB = 2.25 GiB of content
  const std::string database = PathOf("big.db");
  DirHandle* dir = velfsOpenDir(database.c_str());
  ASSERT_NE(dir, nullptr);
  Buffer chunk = Allocate(kChunk);
  ASSERT_NE(chunk, nullptr);
  for (int i = 0; i < kFiles; ++i) {
    const std::string name = "big/f" + std::to_string(i) + ".bin";
    FileHandle* file = velfsCreateFileIndir(dir, name.c_str(), 1);
    ASSERT_NE(file, nullptr);
    Fill(chunk.get(), 0, kChunk, static_cast<uint64_t>(i) << 56);
    ASSERT_EQ(velfsWrite(file, chunk.get(), kChunk), kChunk) << name;
    EXPECT_EQ(velfsTell(file), static_cast<int32_t>(kChunk));
    velfsCloseFile(file);
  }

  // A write beyond SQLite's largest row (1,000,000,000 bytes) answers 0 and stores nothing. The
  // source is an untouched anonymous mapping: it costs no memory.
  constexpr std::size_t kTooLong = 1000000001;
  void* source = ::mmap(nullptr, kTooLong, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(source, MAP_FAILED);
  FileHandle* tooLong = velfsCreateFileIndir(dir, "big/too-long.bin", 1);
  ASSERT_NE(tooLong, nullptr);
  EXPECT_EQ(velfsWrite(tooLong, source, kTooLong), 0u);
  EXPECT_FALSE(velfsResize(tooLong, kTooLong));
  velfsCloseFile(tooLong);
  ::munmap(source, kTooLong);
  bool exists = true;
  EXPECT_TRUE(velfsIsFileExist(dir, "big/too-long.bin", &exists));
  EXPECT_FALSE(exists);
  velfsCloseDir(dir);
  EXPECT_GT(std::filesystem::file_size(database), 2 * kGiB);

  // Opened again (the archive back-end refuses a file that large), every file reads back whole.
  dir = velfsOpenDir(database.c_str());
  ASSERT_NE(dir, nullptr);
  for (int i = 0; i < kFiles; ++i) {
    const std::string name = "big/f" + std::to_string(i) + ".bin";
    FileHandle* file = velfsCreateFileIndir(dir, name.c_str(), 0);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(velfsSeek(file, 0, 2), static_cast<int32_t>(kChunk));
    EXPECT_EQ(velfsSeek(file, 0, 0), 0);
    uint64_t offset = 0;
    for (uint64_t count; (count = velfsRead(file, chunk.get(), 64 * kMiB)) > 0; offset += count) {
      ASSERT_EQ(Mismatches(chunk.get(), offset, count, static_cast<uint64_t>(i) << 56), 0u)
          << name << " at " << offset;
    }
    EXPECT_EQ(offset, kChunk) << name;
    velfsCloseFile(file);
  }
  velfsCloseDir(dir);
  const DatabaseView view = ViewDatabase(database, false);
  EXPECT_EQ(view.integrity, "ok");
  EXPECT_EQ(view.integrityRows, 1);
}

}  // namespace
}  // namespace velfs::reliability
