// `NativeFile`, an open host file read and written through a C standard I/O stream in
// binary mode. It holds only its stream and may outlive the storage that opened it.
//
// The operations forward to the stream one to one: counts as fread/fwrite report them, `Seek`
// answers 0 or -1 (not the position), `Error` is the end-of-file indicator, set only once a read
// has run into the end. Positions are 64-bit underneath; where one does not fit the ABI's 32
// bits, `Tell` answers -1 rather than a wrapped value.
#ifndef VELFS_NATIVE_NATIVE_FILE_H
#define VELFS_NATIVE_NATIVE_FILE_H

#include <cstdint>
#include <string>

#include "core/storage.h"
#include "native/host_file_system.h"

namespace velfs {

class NativeFile final : public StorageFile {
 public:
  // Opens `path` with the mode string of `mode`'s low three bits ("rb", "wb", "ab", "rb+", "wb+",
  // "ab+"); true when the stream opened. Values 6 and 7 name no mode and fail.
  bool Open(const std::u16string& path, uint32_t mode);

  uint64_t Read(void* buffer, uint64_t size) override;
  uint64_t Write(const void* buffer, uint64_t size) override;
  int32_t Tell() override;
  int32_t Seek(int32_t offset, int32_t origin) override;
  int32_t Error() override;

 private:
  host::Stream stream_;
};

}  // namespace velfs

#endif  // VELFS_NATIVE_NATIVE_FILE_H
