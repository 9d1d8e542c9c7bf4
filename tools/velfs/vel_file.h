// VelFile: a file of a root, open through velfsCreateFileIndir and closed by the destructor
// (velfsCloseFile), read and written through velfsRead and velfsWrite.
#ifndef VELFS_TOOLS_VEL_FILE_H
#define VELFS_TOOLS_VEL_FILE_H

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "byte_sink.h"
#include "byte_source.h"
#include "root.h"

namespace velfs::tool {

class VelFile : public ByteSource, public ByteSink {
 public:
  static constexpr uint32_t kRead = 0;   // "rb"
  static constexpr uint32_t kWrite = 1;  // "wb"

  // Throws ToolError naming the file when the library opens nothing.
  VelFile(const Root& root, std::string_view inner, uint32_t mode);

  // The size through the API: velfsSeek to the end, velfsTell, back to the start. Empty when the
  // position does not fit the API's 32 bits (a host file of 2 GiB or more).
  std::optional<uint64_t> Size();
  // The size a copy of the file is checked against (Transfer::Copy): Size(), but none for a ZIP
  // member, whose reads report damage themselves (-1) and whose end is found only by
  // inflating all of it when it is deflated.
  std::optional<uint64_t> CopySize();
  // The size of file `inner` of `root`: Size(), or for a directory root whose file is too large
  // for the API's positions, the host's answer. Throws ToolError when the file cannot be opened.
  static std::optional<uint64_t> SizeOf(const Root& root, std::string_view inner);
  // velfsResize (database roots).
  bool Resize(uint64_t size);

  uint64_t ReadSome(char* buffer, uint64_t size) override;
  void WriteAll(const char* buffer, uint64_t size) override;

  // velfsCloseFile now (also done by the destructor).
  void Close() { handle_.reset(); }

 private:
  struct CloseFile {
    void operator()(FileHandle* handle) const { velfsCloseFile(handle); }
  };

  std::unique_ptr<FileHandle, CloseFile> handle_;
  std::string shown_;
  bool archive_;
  uint64_t position_ = 0;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_VEL_FILE_H
