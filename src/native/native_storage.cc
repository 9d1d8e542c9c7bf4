// NativeStorage: files and listings of a real host directory.
#include "native/native_storage.h"

#include "native/host_file_system.h"
#include "native/host_path.h"
#include "native/native_enum.h"
#include "native/native_file.h"
#include "host/text_conversion.h"

namespace velfs {

std::unique_ptr<Storage> NativeStorage::Open(const char* path) {
  if (!IsHostDirectory(path)) return nullptr;
  std::u16string root;
  Utf8ToWide(path, root);
  if (root.empty() || root.back() != u'/') root += u'/';
  return std::unique_ptr<Storage>(new NativeStorage(std::move(root)));
}

std::unique_ptr<StorageFile> NativeStorage::CreateFile(const char* path, uint32_t mode) {
  std::u16string relative;
  Utf8ToWide(path, relative);
  const std::u16string full = root_ + relative;
  auto file = std::make_unique<NativeFile>();
  if (file->Open(full, mode)) return file;
  if (mode == 0 || mode == 3) return nullptr;  // the modes that only open existing files
  // Create each missing parent level, root and file name excluded; failures (levels that
  // exist) are ignored.
  for (std::size_t slash = relative.find(u'/'); slash != std::u16string::npos;
       slash = relative.find(u'/', slash + 1)) {
    host::CreateDirectory(root_ + relative.substr(0, slash + 1));
  }
  if (!file->Open(full, mode)) return nullptr;
  return file;
}

std::unique_ptr<StorageEnum> NativeStorage::CreateEnum(const char* path) {
  auto listing = std::make_unique<NativeEnum>();
  if (!listing->Open(HostPath(path), path)) return nullptr;
  return listing;
}

bool NativeStorage::IsFileExist(const char* path, bool* exists) {
  *exists = IsHostFile(HostPath(path).c_str());
  return true;
}

bool NativeStorage::IsDirectoryExist(const char* path, bool* exists) {
  *exists = IsHostDirectory(HostPath(path).c_str());
  return true;
}

std::string NativeStorage::HostPath(const char* path) const {
  std::string host;
  WideToUtf8(root_.data(), root_.size(), host);
  return host + path;
}

}  // namespace velfs
