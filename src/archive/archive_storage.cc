// The archive back-end: ArchiveStorage and ArchiveFile over zziplib; listings are core's
// Listing, filled from the member names.
#include "archive/archive_storage.h"

#ifdef VELFS_HAVE_ISAL
#include <isa-l/crc.h>
#if defined(__x86_64__)
#include <immintrin.h>
#endif
#else
#include <zlib.h>
#endif
#include <zzip/zzip.h>

#include <cstdint>
#include <mutex>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "archive/archive_io.h"
#include "core/listing.h"

namespace velfs {
namespace {

// RAII owners of zziplib's handles. zziplib counts the streams of an archive: closing the
// archive while streams are open only drops its reference, and the last stream's close frees
// it (and closes its mapped input).
using ArchiveDir = std::unique_ptr<ZZIP_DIR, ReleaseWith<&zzip_dir_close>>;
using MemberStream = std::unique_ptr<ZZIP_FILE, ReleaseWith<&zzip_file_close>>;

// The lock of one archive's shared input position.
using InputLock = std::shared_ptr<std::mutex>;

// ASCII case folding: 'A' to 'Z' become 'a' to 'z'; every other byte stays.
std::string LowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

// One member open for reading its uncompressed bytes. All locating, inflating and positioning is
// zziplib's. `Read` widens zziplib's count with its sign, so a failed read reaches the caller as
// the all-ones count; `Seek` answers the new position or -1; `Error` is the end-of-member test.
//
// The member's bytes are checked against the CRC-32 of its central-directory entry by the read
// that reaches the end of the member, which answers the failure value (-1) instead of its count
// when they differ; from then on every read of the file fails. A running CRC follows the bytes
// read contiguously from position 0, so a member read front to back is checked without a second
// pass. When the reads were not contiguous from the start (a seek skipped or revisited bytes),
// the member is read once more from its start at that moment, ending where the read ended, so
// the check never depends on the order in which the caller visited the bytes. A member that is
// never read to its end is never checked: its bytes so far cannot be known to be wrong.
class ArchiveFile final : public StorageFile {
 public:
  ArchiveFile(InputLock lock, MemberStream stream, uint32_t expectedCrc)
      : lock_(std::move(lock)), stream_(std::move(stream)), expectedCrc_(expectedCrc) {
    ZZIP_STAT status{};
    zzip_file_stat(stream_.get(), &status);
    size_ = status.st_size;
  }
  ~ArchiveFile() override {
    const std::lock_guard<std::mutex> guard(*lock_);
    stream_.reset();
  }

  uint64_t Read(void* buffer, uint64_t size) override {
    const std::lock_guard<std::mutex> guard(*lock_);
    if (check_ == Check::kFailed) return static_cast<uint64_t>(-1);
    const zzip_off_t start = zzip_tell(stream_.get());
    const zzip_ssize_t count = zzip_file_read(stream_.get(), buffer, size);
    if (count <= 0 || check_ == Check::kPassed) return static_cast<uint64_t>(count);
    if (start == crcLength_) {
      crc_ = Extend(crc_, buffer, static_cast<size_t>(count));
      crcLength_ += count;
    }
    if (start + count < size_) return static_cast<uint64_t>(count);
    if (crcLength_ != size_ && !ReadWholeCrc()) {
      check_ = Check::kFailed;
    } else {
      check_ = crc_ == expectedCrc_ ? Check::kPassed : Check::kFailed;
    }
    return check_ == Check::kPassed ? static_cast<uint64_t>(count) : static_cast<uint64_t>(-1);
  }

  int32_t Tell() override {
    const std::lock_guard<std::mutex> guard(*lock_);
    return static_cast<int32_t>(zzip_tell(stream_.get()));
  }

  int32_t Seek(int32_t offset, int32_t origin) override {
    const std::lock_guard<std::mutex> guard(*lock_);
    return static_cast<int32_t>(zzip_seek(stream_.get(), offset, origin));
  }

  int32_t Error() override {
    const std::lock_guard<std::mutex> guard(*lock_);
    return zzip_tell(stream_.get()) >= size_ ? 1 : 0;
  }

 private:
  enum class Check { kPending, kPassed, kFailed };

#if defined(VELFS_HAVE_ISAL) && defined(__x86_64__)
  // ISA-L's AVX-512 CRC returns with the upper halves of the vector registers in use, where
  // compiled AVX code would have cleared them. Until they are cleared, every legacy SSE
  // instruction that the library or the host runs later on this thread pays a transition
  // penalty: small-file reads of a native root ran 5 to 9 % slower after an archive had been
  // read. VZEROUPPER is an AVX instruction, so it runs only where the processor has AVX; without
  // AVX, ISA-L used no vector register wider than 128 bits.
  __attribute__((target("avx"))) static void ClearUpperVectorState() {
    if (__builtin_cpu_supports("avx")) _mm256_zeroupper();
  }
#endif

  // The CRC-32 of the bytes whose CRC-32 is `crc` followed by `length` bytes. A checked stored
  // member costs its copy plus this, so ISA-L's carry-less-multiply CRC serves where it is
  // available (crc32_gzip_refl is the reflected CRC-32 of zlib and ZIP); zlib's gives the same
  // values.
  static uint32_t Extend(uint32_t crc, const void* bytes, size_t length) {
#ifdef VELFS_HAVE_ISAL
    const uint32_t extended =
        crc32_gzip_refl(crc, static_cast<const unsigned char*>(bytes), length);
#if defined(__x86_64__)
    ClearUpperVectorState();
#endif
    return extended;
#else
    return static_cast<uint32_t>(crc32_z(crc, static_cast<const Bytef*>(bytes), length));
#endif
  }

  // The CRC of the whole member, read again from its start. Called only when a read has reached
  // the end, so reading through leaves the position where it was. False when the member cannot
  // be read through to its reported size.
  bool ReadWholeCrc() {
    if (zzip_seek(stream_.get(), 0, SEEK_SET) != 0) return false;
    unsigned char piece[32768];
    uint32_t crc = 0;
    zzip_off_t length = 0;
    for (;;) {
      const zzip_ssize_t count = zzip_file_read(stream_.get(), piece, sizeof piece);
      if (count < 0) return false;
      if (count == 0) break;
      crc = Extend(crc, piece, static_cast<uint64_t>(count));
      length += count;
    }
    crc_ = crc;
    crcLength_ = length;
    return length == size_;
  }

  InputLock lock_;  // declared first: outlives the stream
  MemberStream stream_;
  const uint32_t expectedCrc_;
  zzip_off_t size_ = 0;       // the uncompressed size zziplib reports
  uint32_t crc_ = 0;          // of the first crcLength_ bytes
  zzip_off_t crcLength_ = 0;  // bytes read contiguously from position 0
  Check check_ = Check::kPending;
};

class ArchiveStorage final : public Storage {
 public:
  explicit ArchiveStorage(ArchiveDir dir)
      : dir_(std::move(dir)), facts_(MembersOf(zzip_dirfd(dir_.get()))) {
    while (const ZZIP_DIRENT* member = zzip_readdir(dir_.get())) {
      const std::string_view name(member->d_name);
      auto& names = !name.empty() && name.back() == '/' ? directoryNames_ : fileNames_;
      names.emplace(LowerCase(name), name);  // the first member of a key stays
      members_.emplace_back(name);
    }
    zzip_rewinddir(dir_.get());
  }

  ~ArchiveStorage() override {
    const std::lock_guard<std::mutex> guard(*lock_);
    dir_.reset();
  }

  // A member is found ignoring ASCII case. zzip_file_open with ZZIP_CASELESS would do that, but
  // Debian's zziplib also folds '\\' to '/' in its comparison, so a member named with
  // backslashes would match a '/' path, which must not happen: '\\' in a member name is an
  // ordinary byte. The index folds ASCII case alone, and zziplib opens the exact name it holds
  // with a case-sensitive comparison: the first member, in central-directory order, whose name
  // matches ignoring ASCII case.
  std::unique_ptr<StorageFile> CreateFile(const char* path, uint32_t) override {
    const std::string key = LowerCase(path);
    const auto& names = !key.empty() && key.back() == '/' ? directoryNames_ : fileNames_;
    const auto member = names.find(key);
    if (member == names.end() || !facts_) return nullptr;
    // An encrypted member, or one whose data runs past the members' area, is refused.
    const auto facts = facts_->find(member->second);
    if (facts == facts_->end() || !facts->second.readable) return nullptr;
    const std::lock_guard<std::mutex> guard(*lock_);
    // Known fault of zziplib 0.13.72: when zlib cannot allocate the inflate state of a deflated
    // member, zzip_file_open closes the half-made stream twice and faults on the second close.
    // Nothing before the call can make zlib's allocation succeed; every other allocation failure
    // on this path answers null.
    MemberStream stream(zzip_file_open(dir_.get(), member->second.c_str(), 0));
    if (!stream) return nullptr;
    return std::make_unique<ArchiveFile>(lock_, std::move(stream), facts->second.crc32);
  }

  // One directory level, from the member names: members directly under the prefix are files,
  // the first component of deeper names a directory. The prefix matches case-sensitively;
  // central-directory order, nothing sorted.
  std::unique_ptr<StorageEnum> CreateEnum(const char* path) override {
    const std::string_view prefix(path);
    auto listing = std::make_unique<Listing>(std::string(prefix));
    for (const std::string& member : members_) {
      const std::string_view name(member);
      if (name.size() <= prefix.size() || name.compare(0, prefix.size(), prefix) != 0) continue;
      const std::string_view rest = name.substr(prefix.size());
      const std::size_t slash = rest.find('/');
      if (slash == std::string_view::npos) {
        listing->AddFile(rest);
      } else {
        listing->AddDirectory(rest.substr(0, slash + 1));
      }
    }
    return listing;
  }

  bool IsFileExist(const char* path, bool* exists) override {
    if (path == nullptr) return false;
    *exists = fileNames_.count(LowerCase(path)) != 0;
    return true;
  }

  bool IsDirectoryExist(const char* path, bool* exists) override {
    if (path == nullptr) return false;
    std::string key = LowerCase(path);
    if (key.empty() || key.back() != '/') key += '/';
    *exists = directoryNames_.count(key) != 0;
    return true;
  }

 private:
  InputLock lock_ = std::make_shared<std::mutex>();  // declared first: outlives the archive
  ArchiveDir dir_;
  // What the central directory says of each member (archive_io.h), read when it was opened.
  const std::shared_ptr<const MemberIndex> facts_;
  // Every member name in central-directory order, and the name index: lower-cased names, those
  // ending in '/' in `directoryNames_`, the rest in `fileNames_`, each mapped to the name of the
  // first member that has it. Written only by the constructor.
  std::vector<std::string> members_;
  std::unordered_map<std::string, std::string> fileNames_;
  std::unordered_map<std::string, std::string> directoryNames_;
};

}  // namespace

std::unique_ptr<Storage> OpenArchiveStorage(const std::string& path,
                                            const host::EntryStatus& status) {
  if (status.kind != host::EntryKind::kFile) return nullptr;
  ArchiveDir dir(OpenArchiveDir(path.c_str(), ZZIP_CASELESS));
  if (!dir) return nullptr;
  return std::make_unique<ArchiveStorage>(std::move(dir));
}

}  // namespace velfs
