// The shared not-supported answer, and the copies of names handed to the host.
#include "core/storage.h"

#include <cstdlib>
#include <cstring>
#include <new>

namespace velfs {

bool Storage::DeleteDirectory(const char*) { return false; }
bool Storage::DeleteFile(const char*) { return false; }
bool Storage::RenameFile(const char*, const char*) { return false; }
bool Storage::CopyFile(const char*, const char*, bool) { return false; }
bool Storage::MoveFile(const char*, const char*, bool) { return false; }
bool Storage::BeginTrans() { return false; }
bool Storage::CommitTrans() { return false; }

uint64_t StorageFile::Write(const void*, uint64_t) { return 0; }
bool StorageFile::Resize(uint64_t) { return false; }

char* CopyForHost(const char* text, std::size_t length) {
  auto* copy = static_cast<char*>(std::malloc(length + 1));
  if (copy == nullptr) throw std::bad_alloc();
  if (length != 0) std::memcpy(copy, text, length);
  copy[length] = '\0';
  return copy;
}

}  // namespace velfs
