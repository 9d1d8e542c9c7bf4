// NativeEnum: one host directory, read entry by entry.
#include "native/native_enum.h"

#include "native/host_path.h"

namespace velfs {

bool NativeEnum::Open(const std::string& directoryPath, const std::string& relativePath) {
  if (!IsHostDirectory(directoryPath.c_str())) return false;
  dirPath_ = directoryPath;
  relPath_ = relativePath;
  return true;
}

bool NativeEnum::MoveNext() {
  host::FindData scratch;
  // "." and ".." are passed over.
  do {
    if (ended_) return false;
    if (search_ == nullptr) {
      search_ = host::FindFirst(dirPath_ + "*.*", scratch);
      ended_ = search_ == nullptr;
    } else {
      ended_ = !host::FindNext(*search_, scratch);
    }
    if (ended_) return false;
  } while (scratch.name == "." || scratch.name == "..");
  current_ = std::move(scratch);
  return true;
}

void NativeEnum::Reset() {
  search_.reset();
  current_ = host::FindData();
  ended_ = false;
}

bool NativeEnum::GetName(char** name) {
  if (name == nullptr || !OnEntry()) return false;
  *name = CopyForHost(current_.name.data(), current_.name.size());
  return true;
}

bool NativeEnum::GetFullName(char** name) {
  if (name == nullptr || !OnEntry()) return false;
  std::string text = relPath_ + current_.name;
  if (IsDirectory() && (text.empty() || text.back() != '/')) text += '/';
  *name = CopyForHost(text.data(), text.size());
  return true;
}

bool NativeEnum::IsDirectory() {
  return OnEntry() && (current_.attributes & host::kFileAttributeDirectory) != 0;
}

}  // namespace velfs
