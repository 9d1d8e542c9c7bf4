// Files of 1 GiB through the tool (label "large"): put and get through a directory root, export
// of a ZIP member, the largest file a database root takes on this SQLite (1,000,000,000 bytes per
// row in Debian's build) in and out, and the clear refusal of 1 GiB by a database root. The bytes
// follow a position-dependent pattern, so a chunk written at a wrong offset cannot pass.
#include <gtest/gtest.h>
#include <zip.h>

#include <cstdint>
#include <cstring>
#include <fstream>
#include <vector>

#include "cli_test_support.h"

namespace velfs::testing {
namespace {

constexpr uint64_t kGibibyte = uint64_t{1} << 30;

constexpr std::size_t kWords = std::size_t{1} << 17;  // 1 MiB of 8-byte words

// The pattern's 1 MiB block at `offset`: every 8-byte word holds its own offset, mixed.
void FillBlock(uint64_t offset, std::vector<uint64_t>& block) {
  for (std::size_t i = 0; i < kWords; ++i) {
    block[i] = (offset / sizeof(uint64_t) + i) * 0x9E3779B97F4A7C15ull;
  }
}

void WritePatternFile(const std::string& path, uint64_t size) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  std::vector<uint64_t> block(kWords);
  for (uint64_t offset = 0; offset < size; offset += sizeof(uint64_t) * kWords) {
    FillBlock(offset, block);
    const uint64_t count = std::min<uint64_t>(size - offset, sizeof(uint64_t) * kWords);
    file.write(reinterpret_cast<const char*>(block.data()), static_cast<std::streamsize>(count));
  }
  ASSERT_TRUE(file.good());
}

// Whether a host file holds exactly `size` bytes of the pattern (the source file is removed once
// it is stored, so that a test never holds more than two such files on disk).
bool HoldsPattern(const std::string& path, uint64_t size) {
  std::ifstream file(path, std::ios::binary);
  std::vector<uint64_t> expected(kWords);
  std::vector<uint64_t> actual(kWords);
  uint64_t offset = 0;
  for (; offset < size; offset += sizeof(uint64_t) * kWords) {
    FillBlock(offset, expected);
    const uint64_t count = std::min<uint64_t>(size - offset, sizeof(uint64_t) * kWords);
    file.read(reinterpret_cast<char*>(actual.data()), static_cast<std::streamsize>(count));
    if (static_cast<uint64_t>(file.gcount()) != count ||
        std::memcmp(actual.data(), expected.data(), count) != 0) {
      return false;
    }
  }
  return file.peek() == std::ifstream::traits_type::eof();
}

using CliLargeTest = CliTest;

TEST_F(CliLargeTest, OneGibibyteThroughADirectoryRoot) {
  WritePatternFile(PathOf("big.bin"), kGibibyte);
  std::filesystem::create_directory(PathOf("root"));
  ToolRun run = Run({"put", "big.bin", "root/stored/big.bin"});
  ASSERT_EQ(run.status, 0) << run.err;
  std::filesystem::remove(PathOf("big.bin"));
  EXPECT_EQ(Run({"stat", "root/stored/big.bin"}).out,
            "path: root/stored/big.bin\nkind: file\nsize: 1073741824\nroot: root/stored/\n"
            "back-end: directory\n");
  run = Run({"get", "root/stored/big.bin", "back.bin"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(HoldsPattern(PathOf("back.bin"), kGibibyte));
}

TEST_F(CliLargeTest, OneGibibyteExportedFromAZipArchive) {
  WritePatternFile(PathOf("big.bin"), kGibibyte);
  int error = 0;
  zip_t* archive = zip_open(PathOf("pack.zip").c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  ASSERT_NE(archive, nullptr);
  zip_source_t* source = zip_source_file(archive, PathOf("big.bin").c_str(), 0, -1);
  ASSERT_NE(source, nullptr);
  const zip_int64_t index = zip_file_add(archive, "data/big.bin", source, ZIP_FL_ENC_RAW);
  ASSERT_GE(index, 0);
  ASSERT_EQ(zip_set_file_compression(archive, static_cast<zip_uint64_t>(index), ZIP_CM_STORE, 0),
            0);
  ASSERT_EQ(zip_close(archive), 0);
  std::filesystem::remove(PathOf("big.bin"));

  const ToolRun run = Run({"export", "pack.zip:", "out"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "exported 1 files (1073741824 bytes) from pack.zip: into out\n");
  EXPECT_TRUE(HoldsPattern(PathOf("out/data/big.bin"), kGibibyte));
}

TEST_F(CliLargeTest, LargestRowThroughADatabaseRoot) {
  constexpr uint64_t kSize = 999999488;  // under SQLite's 1,000,000,000 bytes per row
  WritePatternFile(PathOf("big.bin"), kSize);
  ToolRun run = Run({"put", "big.bin", "store.db:big.bin"});
  ASSERT_EQ(run.status, 0) << run.err;
  std::filesystem::remove(PathOf("big.bin"));
  EXPECT_EQ(Run({"ls", "-l", "store.db:"}).out, "file 999999488 big.bin\n");
  run = Run({"get", "store.db:big.bin", "back.bin"});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(HoldsPattern(PathOf("back.bin"), kSize));
}

TEST_F(CliLargeTest, OneGibibyteIsRefusedByADatabaseRoot) {
  MakeSampleDatabase("store.db");
  WriteHostFile(PathOf("big.bin"), "");
  ASSERT_EQ(::truncate(PathOf("big.bin").c_str(), static_cast<off_t>(kGibibyte)), 0);
  const ToolRun run = Run({"put", "big.bin", "store.db:big.bin"});
  EXPECT_EQ(run.status, 1);
  EXPECT_EQ(run.err,
            "velfs: store.db:big.bin: the database refused 1073741824 bytes: more than SQLite "
            "stores in one row (1000000000 bytes unless SQLite was built with a larger "
            "SQLITE_MAX_LENGTH)\n");
  EXPECT_EQ(DatabaseRows(PathOf("store.db")), Sample());
}

}  // namespace
}  // namespace velfs::testing
