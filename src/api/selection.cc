// Storage selection: the one place that names the back-ends.
#include <cstring>

#include "api/api.h"
#include "archive/archive_io.h"
#include "archive/archive_storage.h"
#include "core/read_only_storage.h"
#include "database/database_storage.h"
#include "host/host.h"
#include "native/native_storage.h"

namespace velfs {
namespace {

// A file that starts with SQLite's header is a database: it is not offered to the archive
// back-end, so opening a database never maps it. Larger files than an archive can be are still
// offered (the archive back-end then maps nothing and zziplib goes on to try the name with
// ".zip"), as are files the header cannot be read from.
bool IsDatabaseFile(const std::string& path, const host::EntryStatus& status) {
  static constexpr char kHeader[] = "SQLite format 3";  // 16 bytes with its NUL
  if (status.kind != host::EntryKind::kFile || status.size < sizeof kHeader ||
      status.size > static_cast<uint64_t>(kMaxArchiveSize)) {
    return false;
  }
  unsigned char start[sizeof kHeader];
  return host::ReadFileStart(path, start, sizeof start) == sizeof start &&
         std::memcmp(start, kHeader, sizeof kHeader) == 0;
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
