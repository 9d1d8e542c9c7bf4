// File I/O of the tool: the files bytes move between (a file of a root, a host file, standard
// input and output), the one copy loop, and the two ways of storing a file without leaving half
// of it under its final name.
#ifndef VELFS_TOOLS_FILE_IO_H
#define VELFS_TOOLS_FILE_IO_H

#include <cstdint>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "progress.h"
#include "root.h"

namespace velfs::tool {

// Where a copy reads its bytes.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  // Reads up to `size` bytes; 0 at the end. Throws ToolError when reading fails.
  virtual uint64_t ReadSome(char* buffer, uint64_t size) = 0;
};

// Where a copy writes its bytes.
class ByteSink {
 public:
  virtual ~ByteSink() = default;
  // Writes all `size` bytes or throws ToolError.
  virtual void WriteAll(const char* buffer, uint64_t size) = 0;
};

// A file of a root, open through velfsCreateFileIndir and closed by the destructor
// (velfsCloseFile), read and written through velfsRead and velfsWrite.
class VelFile : public ByteSource, public ByteSink {
 public:
  static constexpr uint32_t kRead = 0;   // "rb"
  static constexpr uint32_t kWrite = 1;  // "wb"

  // Throws ToolError naming the file when the library opens nothing.
  VelFile(const Root& root, std::string_view inner, uint32_t mode);

  // The size through the API: velfsSeek to the end, velfsTell, back to the start. Empty when the
  // position does not fit the API's 32 bits (a host file of 2 GiB or more).
  std::optional<uint64_t> Size();
  // The size a copy of the file is checked against (CopyBytes): Size(), but none for a ZIP
  // member, whose reads report damage themselves (-1) and whose end is found only by inflating
  // all of it when it is deflated.
  std::optional<uint64_t> CopySize();
  // The size of file `inner` of `root`: Size(), or for a directory root whose file is too large
  // for the API's positions, the host's answer. Throws ToolError when the file cannot be opened.
  static std::optional<uint64_t> SizeOf(const Root& root, std::string_view inner);
  // velfsResize (database roots).
  bool Resize(uint64_t size) { return velfsResize(handle_.get(), size); }

  uint64_t ReadSome(char* buffer, uint64_t size) override;
  void WriteAll(const char* buffer, uint64_t size) override;

  // velfsCloseFile now (also done by the destructor).
  void Close() { handle_.reset(); }

 private:
  struct CloseFile {
    void operator()(FileHandle* handle) const { velfsCloseFile(handle); }
  };

  std::unique_ptr<FileHandle, CloseFile> handle_;
  const Root& root_;
  std::string shown_;
  bool archive_;
  uint64_t position_ = 0;
};

// A file of the host (or standard input/output) read and written with stdio. Owned streams are
// closed by the destructor; Close() closes earlier and reports a failed flush.
class HostFile : public ByteSource, public ByteSink {
 public:
  // Throws ToolError naming the path and the cause when the file cannot be opened.
  static HostFile OpenRead(const std::string& path);
  // Creates or empties the file; with `exclusive`, an existing file is refused ("file exists").
  static HostFile OpenWrite(const std::string& path, bool exclusive);
  static HostFile StandardInput() { return HostFile(stdin, "standard input", false); }
  static HostFile StandardOutput() { return HostFile(stdout, "standard output", false); }
  // An anonymous temporary file, removed when closed.
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

// The one copy loop of the tool: bytes move through one buffer of kCopyChunkBytes, so a copy
// takes the same memory whatever the file's size. With `size`, exactly that many bytes must come
// and no more (a file that shrinks or grows while it is copied is an error naming `shown`);
// without it, the source is read to its end. Answers the number of bytes copied.
constexpr uint64_t kCopyChunkBytes = uint64_t{16} << 20;
uint64_t CopyBytes(ByteSource& source, ByteSink& sink, std::optional<uint64_t> size,
                   const std::string& shown, Progress* progress);

// Writes host file `target` from `source`: the bytes go to a temporary name beside it, which
// replaces `target` only when complete and is removed on failure, so no part of a file ever
// stands under its final name. Throws ToolError.
void ReplaceHostFile(const std::string& target, ByteSource& source, std::optional<uint64_t> size,
                     const std::string& sourceShown, Progress* progress = nullptr);

// The largest file that the API's signed 32-bit positions reach in a database root.
constexpr uint64_t kMaxDatabaseFile = std::numeric_limits<int32_t>::max();
// SQLite's default largest value (SQLITE_MAX_LENGTH), which Debian's build keeps.
constexpr uint64_t kSqliteDefaultMaxLength = 1000000000;

// Throws ToolError when a file of `size` bytes cannot go into a database root at all.
void CheckDatabaseSize(const std::string& shown, uint64_t size);

// Stores `source` (named `sourceShown` in messages; `size` when known) as file `inner` of `root`,
// so that a failure leaves nothing half-written. Throws ToolError.
// - Database roots: the caller holds the root's transaction (Root::Begin) and commits only after
//   every file is stored. The file's row is made at its final size with velfsResize (a zero blob,
//   no buffer) and filled by in-place velfsWrite calls, chunk by chunk, so memory does not grow
//   with the file; an existing file is deleted first. A source of unknown size (standard input)
//   is spooled to a temporary host file first.
// - Directory roots: the bytes go to a temporary name beside the target through the library,
//   which is renamed over the target on the host when complete and removed on failure.
// - ZIP archives are read-only.
void StoreFile(Root& root, std::string_view inner, ByteSource& source,
               std::optional<uint64_t> size, const std::string& sourceShown, Progress* progress);
// StoreFile for one file on its own: in a database root inside a transaction of its own,
// committed when the file is complete.
void StoreFileAndCommit(Root& root, std::string_view inner, ByteSource& source,
                        std::optional<uint64_t> size, const std::string& sourceShown);

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_FILE_IO_H
