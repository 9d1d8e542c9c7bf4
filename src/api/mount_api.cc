// The exported mount, mapping and stub functions, DllMain, and the process-wide mount table.
//
// The mount table maps mount names (a virtual path's prefix up to and including its first ':',
// compared byte by byte) to system paths, each with a storage kept open. It is the library's
// only global state: created at first use, guarded by its own lock, and never destroyed, so
// that mounted storages stay as they are when the process exits. Stubs hold a reference to
// their mount's storage, so a file opened through a mount stays usable after its unmount.
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "api/api.h"
#include "core/paths.h"
#include "host/host.h"
#include "velIOStub.h"
#include "velfs.h"

namespace velfs {
namespace {

class MountTable {
 public:
  static MountTable& Instance() {
    static MountTable* table = new MountTable();  // never destroyed: see above
    return *table;
  }

  // Nothing changes when the name is taken or no back-end accepts the path.
  void Mount(const std::string& name, const std::string& sysPath) {
    {
      const std::lock_guard<std::mutex> guard(lock_);
      if (entries_.count(name) != 0) return;
    }
    std::shared_ptr<Storage> storage = OpenStorage(sysPath);
    if (!storage) return;
    const std::lock_guard<std::mutex> guard(lock_);
    // The storage is opened outside the lock; a mount of the same name that another thread
    // finished meanwhile stays, and this storage is dropped.
    entries_.emplace(name, Entry{sysPath, std::move(storage)});
  }

  // Removes the entry; its storage goes with the last stub still open on it, and never under
  // the table's lock (closing a database can take time).
  void Unmount(const std::string& name) {
    std::shared_ptr<Storage> storage;
    {
      const std::lock_guard<std::mutex> guard(lock_);
      const auto entry = entries_.find(name);
      if (entry == entries_.end()) return;
      storage = std::move(entry->second.storage);
      entries_.erase(entry);
    }
  }

  // The entry's sysPath, '/', and the rest of the path after the prefix; empty when unmapped.
  std::string ToSyspath(std::string_view path) const {
    const std::string_view prefix = MountPrefix(path);
    if (prefix.empty()) return {};
    const std::lock_guard<std::mutex> guard(lock_);
    const auto entry = entries_.find(prefix);
    if (entry == entries_.end()) return {};
    std::string result = entry->second.sysPath;
    result += '/';  // always, even beside another '/'
    result += path.substr(prefix.size());
    return result;
  }

  // The storage mounted under the path's prefix and the rest of the path; null when unmapped.
  std::shared_ptr<Storage> Find(std::string_view path, std::string& rest) const {
    const std::string_view prefix = MountPrefix(path);
    if (prefix.empty()) return nullptr;
    const std::lock_guard<std::mutex> guard(lock_);
    const auto entry = entries_.find(prefix);
    if (entry == entries_.end()) return nullptr;
    rest.assign(path.substr(prefix.size()));
    return entry->second.storage;
  }

 private:
  struct Entry {
    std::string sysPath;
    std::shared_ptr<Storage> storage;
  };

  // The text up to and including the first ':', or empty.
  static std::string_view MountPrefix(std::string_view path) {
    const std::size_t colon = path.find(':');
    return colon == std::string_view::npos ? std::string_view() : path.substr(0, colon + 1);
  }

  mutable std::mutex lock_;
  std::map<std::string, Entry, std::less<>> entries_;
};

// What a FileStub's `file` points to: the open file, and its mount's storage, which must
// outlive it (declared first, destroyed last).
struct StubFile {
  std::shared_ptr<Storage> storage;
  std::unique_ptr<StorageFile> file;
};

// The six functions of every FileStub. The host I/O layer calls them through the record, so
// they are exported functions too: a null file answers 0 (-1 for seek), a null buffer 0, and
// nothing thrown crosses them. `resize` never reaches the file.
StorageFile* FileOf(void* file) { return static_cast<StubFile*>(file)->file.get(); }

uint64_t StubRead(void* file, void* buffer, uint64_t size) {
  return Boundary<uint64_t>(0, [&]() -> uint64_t {
    return file == nullptr || buffer == nullptr ? 0 : FileOf(file)->Read(buffer, size);
  });
}

uint64_t StubWrite(void* file, const void* buffer, uint64_t size) {
  return Boundary<uint64_t>(0, [&]() -> uint64_t {
    return file == nullptr || buffer == nullptr ? 0 : FileOf(file)->Write(buffer, size);
  });
}

int32_t StubTell(void* file) {
  return Boundary<int32_t>(-1, [&] { return file == nullptr ? 0 : FileOf(file)->Tell(); });
}

int32_t StubSeek(void* file, int32_t offset, int32_t origin) {
  return Boundary<int32_t>(-1, [&] {
    return file == nullptr ? -1 : FileOf(file)->Seek(offset, origin);
  });
}

int32_t StubError(void* file) {
  return Boundary<int32_t>(0, [&] { return file == nullptr ? 0 : FileOf(file)->Error(); });
}

int32_t StubResize(void*, uint64_t) { return 0; }

bool IsEmpty(const char* text) { return text == nullptr || *text == '\0'; }

}  // namespace

void host::OnLibraryLoad(void* module) { DllMain(module, 1, nullptr); }

}  // namespace velfs

using velfs::Boundary;
using velfs::MountTable;
using velfs::IsEmpty;
using velfs::NormalizedCopy;

extern "C" {

void velFSMountPath(const char* name, const char* sysPath) {
  Boundary([&] {
    if (IsEmpty(name) || IsEmpty(sysPath)) return;
    MountTable::Instance().Mount(NormalizedCopy(name), NormalizedCopy(sysPath));
  });
}

void velFSUnmountPath(const char* name) {
  Boundary([&] {
    if (IsEmpty(name)) return;
    MountTable::Instance().Unmount(NormalizedCopy(name));
  });
}

uint64_t velFSVelToSyspath(const char* path, char* buffer, uint64_t size) {
  return Boundary<uint64_t>(0, [&]() -> uint64_t {
    if (IsEmpty(path)) return 0;
    const std::string result = MountTable::Instance().ToSyspath(NormalizedCopy(path));
    if (size == 0) return result.size();
    if (buffer == nullptr) return 0;
    std::strncpy(buffer, result.c_str(), size);
    return result.size();
  });
}

int32_t velFSCreateDirectory(const char* path) {
  return Boundary<int32_t>(0, [&] {
    if (IsEmpty(path)) return 0;
    return velfs::host::CreateDirectory(NormalizedCopy(path)) ? 1 : 0;
  });
}

int32_t velFSInitFileSystem(void) { return velRegisterFS(&velFSCreateStub, &velFSDeleteStub); }

FileStub* velFSCreateStub(const char* path, uint32_t mode) {
  return Boundary<FileStub*>(nullptr, [&]() -> FileStub* {
    if (IsEmpty(path)) return nullptr;
    std::string copy = NormalizedCopy(path);
    if (copy.find(':') == std::string::npos) copy.insert(0, "app:");
    std::string rest;
    auto stubFile = std::make_unique<velfs::StubFile>();
    stubFile->storage = MountTable::Instance().Find(copy, rest);
    if (!stubFile->storage) return nullptr;
    stubFile->file = velfs::OpenStorageFile(*stubFile->storage, rest, mode);
    if (!stubFile->file) return nullptr;
    auto stub = std::make_unique<FileStub>(FileStub{&velfs::StubRead, &velfs::StubWrite,
                                                    &velfs::StubTell, &velfs::StubSeek,
                                                    &velfs::StubError, &velfs::StubResize,
                                                    nullptr});
    stub->file = stubFile.release();
    return stub.release();
  });
}

void velFSDeleteStub(FileStub* stub) {
  if (stub == nullptr) return;
  delete static_cast<velfs::StubFile*>(stub->file);  // the file, then its storage's reference
  delete stub;
}

int32_t DllMain(void*, uint32_t reason, void*) {
  if (reason == 1) velFSInitFileSystem();  // process attach
  return 1;
}

}  // extern "C"
