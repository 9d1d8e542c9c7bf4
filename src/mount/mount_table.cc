// MountTable, and the stub operations that open files in mounted storages.
#include "mount/mount_table.h"

#include "core/storage_selection.h"
#include "mount/file_stub.h"

namespace velfs {

// A function-local static is created at first use (a failed creation is retried at the next
// call) and destroyed through the C runtime's exit list, at process exit or library unload.
MountTable& MountTable::Instance() {
  static MountTable table;
  return table;
}

// Destroying the table releases the entries but leaves mounted storages as they are.
MountTable::~MountTable() {
  for (auto& entry : entries_) static_cast<void>(entry.second.storage.release());
}

bool MountTable::Mount(const std::string& name, const std::string& sysPath) {
  if (entries_.count(name) != 0) return false;
  std::unique_ptr<Storage> storage = OpenStorage(sysPath.c_str());
  if (!storage) return false;
  entries_.emplace(name, MountEntry{sysPath, std::move(storage)});
  return true;
}

bool MountTable::Unmount(const std::string& name) {
  entries_.erase(name);  // the entry's storage first, then its strings
  return true;
}

std::string_view MountTable::MountPrefix(std::string_view path) {
  const std::size_t colon = path.find(':');
  return colon == std::string_view::npos ? std::string_view() : path.substr(0, colon + 1);
}

std::string MountTable::ToSyspath(std::string_view path) const {
  const std::string_view prefix = MountPrefix(path);
  if (prefix.empty()) return {};
  const auto entry = entries_.find(prefix);
  if (entry == entries_.end()) return {};
  std::string result = entry->second.sysPath;
  result += '/';  // always, even beside another '/'
  result += path.substr(prefix.size());
  return result;
}

FileStub* MountTable::CreateStub(std::string_view path, uint32_t mode) {
  const std::string_view prefix = MountPrefix(path);
  if (prefix.empty()) return nullptr;
  const auto entry = entries_.find(prefix);
  if (entry == entries_.end()) return nullptr;
  const std::string rest(path.substr(prefix.size()));
  std::unique_ptr<StorageFile> file = OpenStorageFile(entry->second.storage.get(), rest.c_str(), mode);
  return file ? MakeFileStub(std::move(file)) : nullptr;
}

void MountTable::DeleteStub(FileStub* stub) { ReleaseFileStub(stub); }

}  // namespace velfs
