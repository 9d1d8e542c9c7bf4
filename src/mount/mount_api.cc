// The exported mount, mapping and stub functions, and DllMain.
#include <cstring>
#include <string>

#include "mount/mount_table.h"
#include "native/host_path.h"
#include "velIOStub.h"
#include "velfs.h"

using velfs::MountTable;
using velfs::NormalizedCopy;

namespace {

bool IsEmpty(const char* text) { return text == nullptr || *text == '\0'; }

}  // namespace

extern "C" {

void velFSMountPath(const char* name, const char* sysPath) {
  if (IsEmpty(name) || IsEmpty(sysPath)) return;
  MountTable::Instance().Mount(NormalizedCopy(name), NormalizedCopy(sysPath));
}

void velFSUnmountPath(const char* name) {
  if (IsEmpty(name)) return;
  MountTable::Instance().Unmount(NormalizedCopy(name));
}

uint64_t velFSVelToSyspath(const char* path, char* buffer, uint64_t size) {
  if (IsEmpty(path)) return 0;
  const std::string result = MountTable::Instance().ToSyspath(NormalizedCopy(path));
  if (size == 0) return result.size();
  if (buffer == nullptr) return 0;
  std::strncpy(buffer, result.c_str(), size);
  return result.size();
}

int32_t velFSCreateDirectory(const char* path) {
  if (IsEmpty(path)) return 0;
  return velfs::CreateHostDirectory(NormalizedCopy(path).c_str()) ? 1 : 0;
}

int32_t velFSInitFileSystem(void) { return velRegisterFS(&velFSCreateStub, &velFSDeleteStub); }

FileStub* velFSCreateStub(const char* path, uint32_t mode) {
  if (IsEmpty(path)) return nullptr;
  std::string copy = NormalizedCopy(path);
  if (copy.find(':') == std::string::npos) copy.insert(0, "app:");
  return MountTable::Instance().CreateStub(copy, mode);
}

void velFSDeleteStub(FileStub* stub) {
  if (stub == nullptr) return;
  MountTable::Instance().DeleteStub(stub);
}

int32_t DllMain(void*, uint32_t reason, void*) {
  if (reason == 1) velFSInitFileSystem();  // process attach
  return 1;
}

}  // extern "C"
