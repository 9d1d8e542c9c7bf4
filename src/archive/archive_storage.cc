// The archive back-end: ArchiveStorage and ArchiveFile over zziplib; listings are core's
// Listing, filled from the member names.
#include "archive/archive_storage.h"

#include <zzip/zzip.h>

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
class ArchiveFile final : public StorageFile {
 public:
  ArchiveFile(InputLock lock, MemberStream stream)
      : lock_(std::move(lock)), stream_(std::move(stream)) {}
  ~ArchiveFile() override {
    const std::lock_guard<std::mutex> guard(*lock_);
    stream_.reset();
  }

  uint64_t Read(void* buffer, uint64_t size) override {
    const std::lock_guard<std::mutex> guard(*lock_);
    return static_cast<uint64_t>(zzip_file_read(stream_.get(), buffer, size));
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
    ZZIP_STAT status{};
    zzip_file_stat(stream_.get(), &status);
    return zzip_tell(stream_.get()) >= status.st_size ? 1 : 0;
  }

 private:
  InputLock lock_;  // declared first: outlives the stream
  MemberStream stream_;
};

class ArchiveStorage final : public Storage {
 public:
  explicit ArchiveStorage(ArchiveDir dir) : dir_(std::move(dir)) {
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
    if (member == names.end()) return nullptr;
    const std::lock_guard<std::mutex> guard(*lock_);
    // Known fault of zziplib 0.13.72: when zlib cannot allocate the inflate state of a deflated
    // member, zzip_file_open closes the half-made stream twice and faults on the second close.
    // Nothing before the call can make zlib's allocation succeed; every other allocation failure
    // on this path answers null.
    MemberStream stream(zzip_file_open(dir_.get(), member->second.c_str(), 0));
    if (!stream) return nullptr;
    return std::make_unique<ArchiveFile>(lock_, std::move(stream));
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
