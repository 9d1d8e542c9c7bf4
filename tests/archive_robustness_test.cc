// Issue 5 beyond the Parts' edge cases: many members, long deflated members positioned back and
// forth, damaged archives offered as roots, and the known behaviour of Debian's zziplib 0.13.72
// checked against the library itself (the backslash fold of its caseless compare, CRC-32 never
// checked).
#include <zzip/zzip.h>

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "archive_test_support.h"

namespace velfs::testing::archivetest {
namespace {

class ArchiveRobustnessTest : public ArchiveTest {
 protected:
  // Writes `bytes` as the file `name` and answers its path.
  std::string Damaged(const std::string& name, const std::string& bytes) {
    const std::string path = PathOf(name);
    WriteHostFile(path, bytes);
    return path;
  }
  static void Put32(std::string& bytes, std::size_t at, uint32_t value) {
    for (int i = 0; i < 4; ++i) bytes[at + i] = static_cast<char>(value >> (8 * i));
  }
  static void Put16(std::string& bytes, std::size_t at, uint16_t value) {
    bytes[at] = static_cast<char>(value);
    bytes[at + 1] = static_cast<char>(value >> 8);
  }
};

TEST_F(ArchiveRobustnessTest, ThousandMembersEachReadBackExactly) {
  std::vector<ZipMember> members;
  std::map<std::string, std::string> source;
  for (int i = 0; i < 1000; ++i) {
    char name[64];
    std::snprintf(name, sizeof name, "dir%d/member%04d.bin", i % 10, i);
    std::size_t size = static_cast<std::size_t>((i * 7919) % 6000);
    if (i % 97 == 0) size = 0;
    if (i % 250 == 1) size = 70000 + static_cast<std::size_t>(i);
    const std::string data =
        PseudoRandomBytes(size, static_cast<uint32_t>(i + 1), i % 2 == 0 ? 256 : 17);
    source[name] = data;
    // Deflate only what deflate can shrink, so that libzip keeps the method asked for.
    members.push_back(i % 2 == 1 && size > 64 ? Deflated(name, data) : Stored(name, data));
  }
  const std::string path = MakeZip("thousand.zip", members);
  std::size_t deflated = 0;
  for (const ZipEntryInfo& entry : ReadCentralDirectory(path)) deflated += entry.method == 8;
  EXPECT_GT(deflated, 400u);

  std::unique_ptr<Storage> storage = OpenArchive(path);
  ASSERT_NE(storage, nullptr);
  int mismatches = 0;
  for (const auto& [name, data] : source) {
    bool exists = false;
    ASSERT_TRUE(storage->IsFileExist(name.c_str(), &exists));
    EXPECT_TRUE(exists) << name;
    std::unique_ptr<StorageFile> file = storage->CreateFile(name.c_str(), 0);
    ASSERT_NE(file, nullptr) << name;
    const std::string read = ReadRest(*file, 1000 + name.size());
    if (read != data && ++mismatches <= 5) ADD_FAILURE() << name << " differs";
    EXPECT_EQ(file->Error(), 1) << name;
  }
  EXPECT_EQ(mismatches, 0);
  const std::vector<Listed> root = List(*storage, "");
  ASSERT_EQ(root.size(), 10u);
  EXPECT_EQ(root[0], (Listed{"dir0/", "dir0/", true}));
  EXPECT_EQ(List(*storage, "dir3/").size(), 100u);
}

// A 1 MiB member of non-repeating data, positioned at every 4099th byte forward, then backward
// (every third of them), then at pseudo-random places with all three origins; each time 16 bytes
// are compared with the source. Stored and deflated.
TEST_F(ArchiveRobustnessTest, MebibyteMemberSeeksForwardAndBackwardMatchSource) {
  const std::size_t kSize = 1u << 20;
  const std::string data = PseudoRandomBytes(kSize, 0xC0FFEE, 64);
  const std::string path =
      MakeZip("big.zip", {Stored("stored.bin", data), Deflated("deflated.bin", data)});
  const std::vector<ZipEntryInfo> central = ReadCentralDirectory(path);
  ASSERT_EQ(central.size(), 2u);
  EXPECT_LT(central[1].compressedSize, kSize);  // really deflated

  std::vector<int32_t> forward;
  for (std::size_t at = 0; at < kSize; at += 4099) forward.push_back(static_cast<int32_t>(at));
  // Backward, every third of those positions: a backward seek in a deflated member inflates
  // again from the start, so each costs its target's distance from the start.
  std::vector<int32_t> backward;
  for (std::size_t i = forward.size(); i-- > 0;) {
    if (i % 3 == 0) backward.push_back(forward[i]);
  }
  std::vector<int32_t> random;
  uint32_t state = 2463534242u;
  for (int i = 0; i < 100; ++i) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    random.push_back(static_cast<int32_t>(state % kSize));
  }
  random.push_back(0);
  random.push_back(static_cast<int32_t>(kSize - 1));
  random.push_back(static_cast<int32_t>(kSize));

  std::unique_ptr<Storage> storage = OpenArchive(path);
  ASSERT_NE(storage, nullptr);
  for (const char* name : {"stored.bin", "deflated.bin"}) {
    SCOPED_TRACE(name);
    std::unique_ptr<StorageFile> file = storage->CreateFile(name, 0);
    ASSERT_NE(file, nullptr);
    int mismatches = 0;
    auto check = [&](int32_t at, int origin) {
      const int32_t current = file->Tell();
      const int32_t offset = origin == 0   ? at
                             : origin == 1 ? at - current
                                           : at - static_cast<int32_t>(kSize);
      EXPECT_EQ(file->Seek(offset, origin), at) << "origin " << origin;
      EXPECT_EQ(file->Tell(), at);
      char buffer[16];
      const uint64_t got = file->Read(buffer, sizeof buffer);
      const std::size_t want = std::min<std::size_t>(16, kSize - static_cast<std::size_t>(at));
      EXPECT_EQ(got, want);
      if (got != want || data.compare(static_cast<std::size_t>(at), want, buffer, want) != 0) {
        if (++mismatches <= 5) ADD_FAILURE() << "bytes differ at " << at;
      }
    };
    for (const int32_t at : forward) check(at, 0);
    for (const int32_t at : backward) check(at, 0);
    for (std::size_t i = 0; i < random.size(); ++i) check(random[i], static_cast<int>(i % 3));
    EXPECT_EQ(mismatches, 0);
    // And a whole front-to-back read after all that positioning.
    EXPECT_EQ(file->Seek(0, 0), 0);
    EXPECT_EQ(ReadRest(*file, 65536), data);
  }
}

// A shared three-member archive for the damage tests: a.txt stored, b.txt deflated, c.txt stored.
class DamagedArchiveTest : public ArchiveRobustnessTest {
 protected:
  void SetUp() override {
    ArchiveRobustnessTest::SetUp();
    whole_ = ReadHostFile(
        MakeZip("whole.zip", {Stored("a.txt", a_), Deflated("b.txt", b_), Stored("c.txt", "c")}));
    central_ = CentralDirectoryOffset(whole_);
    end_ = EndRecordOffset(whole_);
    ASSERT_NE(central_, std::string::npos);
    ASSERT_NE(end_, std::string::npos);
    ASSERT_EQ(end_ + 22, whole_.size());  // no archive comment
  }
  // Whether neither the archive back-end nor, through velfsOpenDir, any back-end takes `path`,
  // and the file is left as it was.
  void ExpectNoRoot(const std::string& path, const std::string& bytes) {
    EXPECT_EQ(OpenArchive(path), nullptr);
    EXPECT_EQ(DirPtr(velfsOpenDir(path.c_str())), nullptr);  // not SQLite either
    EXPECT_EQ(FilePtr(velfsCreateFile((path + ":a.txt").c_str(), 0)), nullptr);
    EXPECT_EQ(ReadHostFile(path), bytes);
    EXPECT_EQ(MappingsOf(path), 0);
  }

  const std::string a_ = std::string(3000, 'a');
  const std::string b_ = PseudoRandomBytes(5000, 3, 10);
  std::string whole_;
  std::size_t central_ = 0;
  std::size_t end_ = 0;
};

TEST_F(DamagedArchiveTest, TruncatedArchiveIsNoRoot) {
  // Every cut that leaves fewer than 20 bytes of the 22-byte end-of-central-directory record.
  for (const std::size_t length :
       {std::size_t{4}, std::size_t{30}, std::size_t{100}, whole_.size() / 2, central_,
        central_ + 10, end_, end_ + 4, end_ + 12, end_ + 19}) {
    SCOPED_TRACE(length);
    const std::string bytes = whole_.substr(0, length);
    ExpectNoRoot(Damaged("cut.zip", bytes), bytes);
  }
  // One byte is no archive either. (SQLite takes a file of exactly one byte for an empty
  // database, so velfsOpenDir would turn it into one: only the archive back-end is asked.)
  EXPECT_EQ(OpenArchive(Damaged("one.zip", whole_.substr(0, 1))), nullptr);

  // zziplib 0.13.72 reads the end record without its last field (the comment length) when 20
  // or 21 of its 22 bytes are there: cutting only that field leaves a whole, readable archive.
  for (const std::size_t length : {end_ + 20, end_ + 21}) {
    SCOPED_TRACE(length);
    std::unique_ptr<Storage> storage =
        OpenArchive(Damaged("short-end.zip", whole_.substr(0, length)));
    ASSERT_NE(storage, nullptr);
    EXPECT_EQ(ReadMember(*storage, "a.txt"), a_);
    EXPECT_EQ(ReadMember(*storage, "b.txt"), b_);
    EXPECT_EQ(ReadMember(*storage, "c.txt"), "c");
  }
}

TEST_F(DamagedArchiveTest, CorruptedCentralDirectoryIsNoRoot) {
  const std::size_t centralB = CentralHeaderOffset(whole_, "b.txt");
  ASSERT_NE(centralB, std::string::npos);
  struct Damage {
    const char* what;
    std::string bytes;
  };
  std::vector<Damage> damages;
  auto damage = [&](const char* what, auto change) {
    std::string bytes = whole_;
    change(bytes);
    damages.push_back({what, bytes});
  };
  damage("first entry's signature", [&](std::string& b) { b[central_] = 'X'; });
  damage("directory offset beyond the file",
         [&](std::string& b) { Put32(b, end_ + 16, 0xFFFFFF00u); });
  damage("directory offset one short",
         [&](std::string& b) { Put32(b, end_ + 16, static_cast<uint32_t>(central_ - 1)); });
  damage("more entries than there are", [&](std::string& b) {
    Put16(b, end_ + 8, 500);
    Put16(b, end_ + 10, 500);
  });
  damage("directory size too large", [&](std::string& b) { Put32(b, end_ + 12, 0x7FFFFFFFu); });
  damage("name length past the end", [&](std::string& b) { Put16(b, centralB + 28, 0xFFFF); });
  damage("directory replaced by noise", [&](std::string& b) {
    const std::string noise = PseudoRandomBytes(end_ - central_, 99, 256);
    b.replace(central_, noise.size(), noise);
  });
  for (const Damage& d : damages) {
    SCOPED_TRACE(d.what);
    ExpectNoRoot(Damaged("damaged.zip", d.bytes), d.bytes);
  }
}

// Damage confined to one member's record: the archive opens; the member cannot be opened where
// its local header is not found, and its siblings read normally.
TEST_F(DamagedArchiveTest, DamagedMemberRecordFailsAloneNeverCrashes) {
  {
    SCOPED_TRACE("local header signature destroyed");
    std::string bytes = whole_;
    const std::size_t local = LocalHeaderOffset(bytes, "b.txt");
    ASSERT_NE(local, std::string::npos);
    bytes[local + 1] = 'Q';
    std::unique_ptr<Storage> storage = OpenArchive(Damaged("local.zip", bytes));
    ASSERT_NE(storage, nullptr);
    bool exists = false;
    EXPECT_TRUE(storage->IsFileExist("b.txt", &exists));
    EXPECT_TRUE(exists);  // the central directory still names it
    EXPECT_EQ(storage->CreateFile("b.txt", 0), nullptr);
    EXPECT_EQ(ReadMember(*storage, "a.txt"), a_);
    EXPECT_EQ(ReadMember(*storage, "c.txt"), "c");
  }
  {
    // Part 5.1: a seek beyond the file is no error; it answers the unchanged position, and
    // zziplib looks for the local header wherever the archive's one input position stands.
    SCOPED_TRACE("local header offset beyond the file");
    std::string bytes = whole_;
    Put32(bytes, CentralHeaderOffset(bytes, "b.txt") + 42, 0x7FFFFF00u);
    std::unique_ptr<Storage> storage = OpenArchive(Damaged("offset.zip", bytes));
    ASSERT_NE(storage, nullptr);
    // Right after opening, the position is behind the central directory, at the end record:
    // no local header there.
    EXPECT_EQ(storage->CreateFile("b.txt", 0), nullptr);
    // After a.txt has been read to its end the position stands on b.txt's real local header.
    EXPECT_EQ(ReadMember(*storage, "a.txt"), a_);
    EXPECT_EQ(ReadMember(*storage, "b.txt"), b_);
    EXPECT_EQ(ReadMember(*storage, "c.txt"), "c");
  }
  {
    // A recorded compressed size far beyond the file: inflating stops at the end of the
    // deflate stream, so the member still reads whole.
    SCOPED_TRACE("compressed size too large");
    std::string bytes = whole_;
    Put32(bytes, CentralHeaderOffset(bytes, "b.txt") + 20, 0x7FFFFF00u);
    std::unique_ptr<Storage> storage = OpenArchive(Damaged("csize.zip", bytes));
    ASSERT_NE(storage, nullptr);
    EXPECT_EQ(ReadMember(*storage, "b.txt"), b_);
    EXPECT_EQ(ReadMember(*storage, "c.txt"), "c");
  }
  {
    // A recorded uncompressed size larger than the stream: the stream ends early and the read
    // delivers what it holds.
    SCOPED_TRACE("uncompressed size too large");
    std::string bytes = whole_;
    Put32(bytes, CentralHeaderOffset(bytes, "b.txt") + 24, 9000);
    std::unique_ptr<Storage> storage = OpenArchive(Damaged("usize.zip", bytes));
    ASSERT_NE(storage, nullptr);
    EXPECT_EQ(ReadMember(*storage, "b.txt"), b_);
  }
}

TEST_F(ArchiveRobustnessTest, CorruptedDeflateStreamReadAnswersAllOnes) {
  const std::string text = PseudoRandomBytes(20000, 5, 12);
  const std::string whole =
      ReadHostFile(MakeZip("whole.zip", {Deflated("head.bin", text), Deflated("middle.bin", text),
                                         Stored("fine.txt", "still fine")}));
  std::string bytes = whole;
  // head.bin: its first byte becomes 0xFF, a block of the reserved type 3 (an error at once).
  const std::size_t head = LocalDataOffset(bytes, "head.bin");
  ASSERT_NE(head, std::string::npos);
  bytes[head] = static_cast<char>(0xFF);
  // middle.bin: noise from the middle of its compressed bytes on.
  const std::size_t middle = LocalDataOffset(bytes, "middle.bin");
  const std::vector<ZipEntryInfo> central = ReadCentralDirectory(PathOf("whole.zip"));
  ASSERT_EQ(central.size(), 3u);
  const std::size_t compressed = static_cast<std::size_t>(central[1].compressedSize);
  const std::string noise = PseudoRandomBytes(compressed / 2, 6, 256);
  bytes.replace(middle + compressed / 2, noise.size(), noise);
  const std::string path = Damaged("damaged.zip", bytes);

  std::unique_ptr<Storage> storage = OpenArchive(path);
  ASSERT_NE(storage, nullptr);
  {
    std::unique_ptr<StorageFile> file = storage->CreateFile("head.bin", 0);
    ASSERT_NE(file, nullptr);
    char buffer[100];
    EXPECT_EQ(file->Read(buffer, sizeof buffer), static_cast<uint64_t>(-1));
    EXPECT_EQ(file->Error(), 0);  // Error is the end-of-member test, not a failure flag
  }
  {
    std::unique_ptr<StorageFile> file = storage->CreateFile("middle.bin", 0);
    ASSERT_NE(file, nullptr);
    std::string content;
    char buffer[256];
    uint64_t got = 0;
    while ((got = file->Read(buffer, sizeof buffer)) != 0 && got <= sizeof buffer) {
      content.append(buffer, static_cast<std::size_t>(got));
    }
    EXPECT_EQ(got, static_cast<uint64_t>(-1));
    EXPECT_LT(content.size(), text.size());
    EXPECT_EQ(content, text.substr(0, content.size()));  // what came before the damage is right
  }
  {
    // A forward seek across the damage fails too.
    std::unique_ptr<StorageFile> file = storage->CreateFile("middle.bin", 0);
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(file->Seek(19000, 0), -1);
  }
  EXPECT_EQ(ReadMember(*storage, "fine.txt"), "still fine");
  // The same through the exported functions.
  FilePtr file(velfsCreateFile((path + ":head.bin").c_str(), 0));
  ASSERT_NE(file, nullptr);
  char buffer[10];
  EXPECT_EQ(velfsRead(file.get(), buffer, sizeof buffer), static_cast<uint64_t>(-1));
  EXPECT_FALSE(velfsError(file.get()));
}

// zziplib 0.13.72: its caseless compare folds '\\' to '/', so zzip_file_open with ZZIP_CASELESS
// opens 'docs\\a.txt' for the path 'docs/a.txt'. Part 5.2 says such a member can be neither
// found nor opened; the storage must hold to that, and a later member 'docs/a.txt' must open.
TEST_F(ArchiveRobustnessTest, BackslashMemberSkippedWhileLaterSlashMemberOpens) {
  const std::string only = MakeZip("only.zip", {Stored("docs\\a.txt", "backslash bytes")});
  {
    // The fact itself, with zziplib's own I/O.
    ZZIP_DIR* dir = zzip_dir_open(only.c_str(), nullptr);
    ASSERT_NE(dir, nullptr);
    ZZIP_FILE* folded = zzip_file_open(dir, "docs/a.txt", ZZIP_CASELESS);
    EXPECT_NE(folded, nullptr) << "zziplib no longer folds '\\\\' to '/'";
    if (folded != nullptr) zzip_file_close(folded);
    zzip_dir_close(dir);
  }
  std::unique_ptr<Storage> storage = OpenArchive(only);
  ASSERT_NE(storage, nullptr);
  bool exists = true;
  EXPECT_TRUE(storage->IsFileExist("docs/a.txt", &exists));
  EXPECT_FALSE(exists);
  EXPECT_EQ(storage->CreateFile("docs/a.txt", 0), nullptr);
  EXPECT_EQ(storage->CreateFile("DOCS/A.TXT", 0), nullptr);

  const std::string both = MakeZip("both.zip", {Stored("docs\\a.txt", "backslash bytes"),
                                                Deflated("docs/a.txt", "slash bytes slash bytes")});
  std::unique_ptr<Storage> storage2 = OpenArchive(both);
  ASSERT_NE(storage2, nullptr);
  exists = false;
  EXPECT_TRUE(storage2->IsFileExist("docs/a.txt", &exists));
  EXPECT_TRUE(exists);
  EXPECT_EQ(ReadMember(*storage2, "docs/a.txt"), "slash bytes slash bytes");
  EXPECT_EQ(ReadMember(*storage2, "Docs/A.txt"), "slash bytes slash bytes");
  FilePtr file(velfsCreateFile((both + ":docs\\a.txt").c_str(), 0));  // normalised to '/'
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(ReadRest(file.get()), "slash bytes slash bytes");
}

// zziplib never compares CRC-32: a stored member whose bytes were changed in the archive file
// reads the changed bytes without an error, and a deflated member whose recorded CRC is wrong
// reads its true bytes.
TEST_F(ArchiveRobustnessTest, Crc32IsNotChecked) {
  const std::string marker = "@@UNIQUE-MARKER-0123456789@@";
  const std::string stored = "before " + marker + " after";
  const std::string deflatedText = PseudoRandomBytes(4000, 8, 16);
  const std::string whole = ReadHostFile(
      MakeZip("whole.zip", {Stored("s.txt", stored), Deflated("d.bin", deflatedText)}));
  std::string bytes = whole;
  const std::size_t at = bytes.find(marker);
  ASSERT_NE(at, std::string::npos);
  ASSERT_EQ(bytes.find(marker, at + 1), std::string::npos);
  bytes.replace(at, marker.size(), "@@CHANGED-MARKER-987654321@@");
  const std::size_t local = LocalHeaderOffset(bytes, "d.bin");
  const std::size_t central = CentralHeaderOffset(bytes, "d.bin");
  ASSERT_NE(local, std::string::npos);
  ASSERT_NE(central, std::string::npos);
  Put32(bytes, local + 14, 0xDEADBEEFu);
  Put32(bytes, central + 16, 0xDEADBEEFu);
  const std::string path = Damaged("crc.zip", bytes);

  std::unique_ptr<Storage> storage = OpenArchive(path);
  ASSERT_NE(storage, nullptr);
  std::unique_ptr<StorageFile> file = storage->CreateFile("s.txt", 0);
  ASSERT_NE(file, nullptr);
  char buffer[200];
  EXPECT_EQ(file->Read(buffer, sizeof buffer), stored.size());
  EXPECT_EQ(std::string(buffer, stored.size()), "before @@CHANGED-MARKER-987654321@@ after");
  EXPECT_EQ(file->Error(), 1);
  EXPECT_EQ(file->Read(buffer, sizeof buffer), 0u);
  EXPECT_EQ(ReadMember(*storage, "d.bin"), deflatedText);
}

// Part 5.2: zziplib accepts only stored and deflated members; CreateFile of another method
// answers null while the member is still found by the existence test and listed.
TEST_F(ArchiveRobustnessTest, MemberOfUnsupportedMethodCannotBeOpened) {
  if (!CanWriteBzip2()) GTEST_SKIP() << "this libzip writes no BZIP2 members";
  std::unique_ptr<Storage> storage =
      OpenArchive(MakeZip("bz.zip", {{"packed.txt", std::string(2000, 'z'), ZipMember::kBzip2},
                                     Stored("ok.txt", "ok")}));
  ASSERT_NE(storage, nullptr);
  bool exists = false;
  EXPECT_TRUE(storage->IsFileExist("packed.txt", &exists));
  EXPECT_TRUE(exists);
  EXPECT_EQ(storage->CreateFile("packed.txt", 0), nullptr);
  EXPECT_EQ(ReadMember(*storage, "ok.txt"), "ok");
}

}  // namespace
}  // namespace velfs::testing::archivetest
