// FileStub records. A null file answers 0 (-1 for seek); `resize` never reaches it.
#include "mount/file_stub.h"

namespace velfs {
namespace {

StorageFile* FileOf(void* file) { return static_cast<StorageFile*>(file); }

uint64_t StubRead(void* file, void* buffer, uint64_t size) {
  return file == nullptr ? 0 : FileOf(file)->Read(buffer, size);
}

uint64_t StubWrite(void* file, const void* buffer, uint64_t size) {
  return file == nullptr ? 0 : FileOf(file)->Write(buffer, size);
}

int32_t StubTell(void* file) { return file == nullptr ? 0 : FileOf(file)->Tell(); }

int32_t StubSeek(void* file, int32_t offset, int32_t origin) {
  return file == nullptr ? -1 : FileOf(file)->Seek(offset, origin);
}

int32_t StubError(void* file) { return file == nullptr ? 0 : FileOf(file)->Error(); }

int32_t StubResize(void*, uint64_t) { return 0; }

}  // namespace

FileStub* MakeFileStub(std::unique_ptr<StorageFile> file) {
  return new FileStub{&StubRead, &StubWrite,  &StubTell,          &StubSeek,
                      &StubError, &StubResize, file.release()};
}

void ReleaseFileStub(FileStub* stub) {
  delete FileOf(stub->file);
  delete stub;
}

}  // namespace velfs
