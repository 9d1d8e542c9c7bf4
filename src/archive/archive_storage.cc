// ArchiveStorage: a ZIP archive's members as read-only files and directories.
#include "archive/archive_storage.h"

#include "archive/archive_enum.h"
#include "archive/archive_file.h"
#include "archive/archive_io.h"
#include "native/host_path.h"

namespace velfs {
namespace {

// ASCII case folding: 'A' to 'Z' become 'a' to 'z'; every other byte stays.
std::string LowerCase(std::string_view text) {
  std::string lower(text);
  for (char& c : lower) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return lower;
}

}  // namespace

std::unique_ptr<Storage> ArchiveStorage::Open(const char* path) {
  if (!IsHostFile(path)) return nullptr;
  // No extension list: zziplib retries the path with ".zip" and ".ZIP" when it cannot open it.
  ArchiveDir dir(zzip_opendir_ext_io(path, ZZIP_CASELESS, nullptr, FillArchiveIo()));
  if (!dir) return nullptr;
  return std::unique_ptr<Storage>(new ArchiveStorage(std::move(dir)));
}

void ArchiveStorage::BuildIndex() {
  if (indexBuilt_ || !dir_) return;
  while (const ZZIP_DIRENT* member = zzip_readdir(dir_.get())) {
    const std::string_view name(member->d_name);
    auto& names = !name.empty() && name.back() == '/' ? directoryNames_ : fileNames_;
    names.emplace(LowerCase(name), name);  // the first member of a key stays
  }
  zzip_rewinddir(dir_.get());
  indexBuilt_ = true;
}

bool ArchiveStorage::IsFileExist(const char* path, bool* exists) {
  if (!dir_ || path == nullptr) return false;
  BuildIndex();
  *exists = fileNames_.count(LowerCase(path)) != 0;
  return true;
}

bool ArchiveStorage::IsDirectoryExist(const char* path, bool* exists) {
  if (!dir_ || path == nullptr) return false;
  BuildIndex();
  std::string key = LowerCase(path);
  if (key.empty() || key.back() != '/') key += '/';
  *exists = directoryNames_.count(key) != 0;
  return true;
}

// A member is found ignoring ASCII case: zzip_file_open with ZZIP_CASELESS which opens the first member whose
// name matches ignoring ASCII case. Debian's zziplib also folds '\\' to '/' in that comparison,
// so a member named with backslashes would match a '/' path, which must not happen: '\\' in a member name is an ordinary byte. The index
// finds the first member that matches by ASCII case alone, and zziplib opens that exact name
// with a case-sensitive comparison: the same member a caseless open would find, for any archive.
std::unique_ptr<StorageFile> ArchiveStorage::CreateFile(const char* path, uint32_t) {
  if (!dir_) return nullptr;
  BuildIndex();
  const std::string key = LowerCase(path);
  const auto& names = !key.empty() && key.back() == '/' ? directoryNames_ : fileNames_;
  const auto member = names.find(key);
  if (member == names.end()) return nullptr;
  MemberStream stream(zzip_file_open(dir_.get(), member->second.c_str(), 0));
  if (!stream) return nullptr;
  return std::make_unique<ArchiveFile>(std::move(stream));
}

std::unique_ptr<StorageEnum> ArchiveStorage::CreateEnum(const char* path) {
  auto listing = std::make_unique<ArchiveEnum>();
  listing->BuildListing(path, dir_.get());
  return listing;
}

}  // namespace velfs
