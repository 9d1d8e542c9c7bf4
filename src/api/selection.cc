// Storage selection: the one place that names the back-ends.
#include <algorithm>
#include <cstring>
#include <vector>

#include "api/api.h"
#include "archive/archive_io.h"
#include "archive/archive_storage.h"
#include "core/read_only_storage.h"
#include "database/database_storage.h"
#include "host/host.h"
#include "native/native_storage.h"

namespace velfs {
namespace {

// A file that starts with SQLite's header and cannot be a ZIP archive is a database: it is not
// offered to the archive back-end, so opening a database never maps it. A file can be opened as
// an archive only when zziplib finds its end record, whose signature "PK\5\6" (or "PK\6\6" for
// the ZIP64 record) starts within the last 65,557 bytes: the 22-byte record and a comment of up
// to 65,535 bytes. That tail is read in one read, without a mapping, and a file holding either
// signature there is still offered to the archive back-end first, so that a file that is both a
// database and an archive opens as the archive, whatever its header. Larger files than an archive
// can be are still offered (the archive back-end then maps nothing and zziplib goes on to try
// the name with ".zip"), as are files the header cannot be read from.
bool IsDatabaseFile(const std::string& path, const host::EntryStatus& status) {
  static constexpr char kHeader[] = "SQLite format 3";  // 16 bytes with its NUL
  static constexpr std::size_t kEndRecordReach = 22 + 65535;
  if (status.kind != host::EntryKind::kFile || status.size < sizeof kHeader ||
      status.size > static_cast<uint64_t>(kMaxArchiveSize)) {
    return false;
  }
  unsigned char start[sizeof kHeader];
  if (host::ReadFileAt(path, 0, start, sizeof start) != sizeof start ||
      std::memcmp(start, kHeader, sizeof kHeader) != 0) {
    return false;
  }
  const std::size_t tailSize =
      static_cast<std::size_t>(std::min<uint64_t>(status.size, kEndRecordReach));
  std::vector<unsigned char> tail(tailSize);
  if (host::ReadFileAt(path, status.size - tailSize, tail.data(), tailSize) != tailSize) {
    return false;  // unreadable now: the archive back-end decides
  }
  for (std::size_t at = 0; at + 4 <= tailSize; ++at) {
    if (tail[at] == 'P' && tail[at + 1] == 'K' &&
        ((tail[at + 2] == 5 && tail[at + 3] == 6) || (tail[at + 2] == 6 && tail[at + 3] == 6))) {
      return false;
    }
  }
  return true;
}

}  // namespace

std::unique_ptr<Storage> OpenStorage(std::string root) {
  if (root.empty()) return nullptr;
  if (root.back() == ':') root.pop_back();  // one ':' at the end, no more
  const host::EntryStatus status = host::Stat(root);
  if (auto storage = OpenNativeStorage(root, status)) return storage;
  if (!IsDatabaseFile(root, status)) {
    if (auto storage = OpenArchiveStorage(root, status)) return storage;
  }
  return OpenDatabaseStorage(root);
}

std::unique_ptr<Storage> OpenStorageReadOnly(std::string root) {
  if (!root.empty() && root.back() == ':') root.pop_back();
  if (root.empty()) return nullptr;  // no private temporary database: nothing exists there
  const host::EntryStatus status = host::Stat(root);
  if (auto storage = OpenNativeStorage(root, status)) return MakeReadOnly(std::move(storage));
  if (status.kind != host::EntryKind::kFile) return nullptr;
  if (!IsDatabaseFile(root, status)) {
    if (auto storage = OpenArchiveStorage(root, status)) return MakeReadOnly(std::move(storage));
  }
  return MakeReadOnly(OpenDatabaseStorage(root, DatabaseAccess::kReadOnly));
}

std::unique_ptr<StorageFile> OpenStorageFile(Storage& storage, const std::string& path,
                                             uint32_t mode) {
  if (path.empty()) return nullptr;
  return storage.CreateFile(path.c_str(), mode);
}

std::unique_ptr<StorageEnum> OpenStorageEnum(Storage& storage, const std::string& path) {
  return storage.CreateEnum(path.c_str());
}

}  // namespace velfs
