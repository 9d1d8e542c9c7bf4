// HostFile: a file of the host file system (or standard input/output) read and written with
// stdio, for the host side of put, get, import and export. Owned streams are closed by the
// destructor; Close() closes earlier and reports a failed flush.
#ifndef VELFS_TOOLS_HOST_FILE_H
#define VELFS_TOOLS_HOST_FILE_H

#include <cstdint>
#include <cstdio>
#include <optional>
#include <string>

#include "byte_sink.h"
#include "byte_source.h"

namespace velfs::tool {

class HostFile : public ByteSource, public ByteSink {
 public:
  // Throws ToolError naming the path and the cause (errno) when the file cannot be opened.
  static HostFile OpenRead(const std::string& path);
  // Creates or empties the file; with `exclusive`, an existing file is refused ("file exists").
  static HostFile OpenWrite(const std::string& path, bool exclusive);
  static HostFile StandardInput();
  static HostFile StandardOutput();
  // An anonymous temporary file (tmpfile), removed when closed.
  static HostFile Temporary();

  HostFile(HostFile&& other) noexcept;
  HostFile& operator=(HostFile&&) = delete;
  ~HostFile() override;

  // The size of a regular file; empty for a pipe or terminal.
  std::optional<uint64_t> Size() const;
  void Rewind();
  void Close();

  uint64_t ReadSome(char* buffer, uint64_t size) override;
  void WriteAll(const char* buffer, uint64_t size) override;

 private:
  HostFile(std::FILE* stream, std::string shown, bool owned);

  std::FILE* stream_;
  std::string shown_;
  bool owned_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_HOST_FILE_H
