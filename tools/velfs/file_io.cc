// File I/O of the tool (see file_io.h). A ZIP member's read answers -1 (all bits set) on
// failure; a database or native read answers a short count, which CopyBytes finds against the
// size. Host errors become the cause of a ToolError in the system's own words.
#include "file_io.h"

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

#include "tool_error.h"

namespace velfs::tool {

namespace {

// A temporary name beside `path` that no other velfs process uses at the same time:
// `dir/.name.velfs-PID` (hidden) or `dir/name.velfs-PID`.
std::string TemporaryNameFor(const std::string& path, bool hidden) {
  const std::size_t slash = path.rfind('/');
  const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(0, nameStart) + (hidden ? "." : "") + path.substr(nameStart) + ".velfs-" +
         std::to_string(host::ProcessId());
}

// Why a file cannot be made at host path `path`: the nearest existing entry above it is a file,
// or a directory that cannot be written.
std::string CreationCause(std::string path) {
  for (std::size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0;
       slash = path.rfind('/', slash - 1)) {
    path.resize(slash);
    const host::Kind kind = host::Examine(path).kind;
    if (kind == host::Kind::kMissing) continue;
    if (kind != host::Kind::kDirectory) return path + " is not a directory";
    if (!host::CanWrite(path)) return "directory " + path + " is not writable";
    break;
  }
  return "the library could not open it for writing";
}

void StoreInDatabase(Root& root, const std::string& inner, ByteSource& source, uint64_t size,
                     const std::string& sourceShown, Progress* progress) {
  const std::string shown = root.Display(inner);
  CheckDatabaseSize(sourceShown, size);
  if (root.Lookup(inner) == EntryKind::kFile && !velfsDeleteFile(root.Handle(), inner.c_str())) {
    throw root.WriteFailure(shown, "cannot replace the file");
  }
  VelFile file(root, inner, VelFile::kWrite);
  if (!file.Resize(size)) {
    if (size > kSqliteDefaultMaxLength) {
      throw ToolError(shown, "the database refused " + std::to_string(size) +
                                 " bytes: more than SQLite stores in one row (1000000000 bytes "
                                 "unless SQLite was built with a larger SQLITE_MAX_LENGTH)");
    }
    throw root.WriteFailure(shown, "the database refused the file");
  }
  CopyBytes(source, file, size, sourceShown, progress);
}

void StoreInDirectory(Root& root, const std::string& inner, ByteSource& source,
                      std::optional<uint64_t> size, const std::string& sourceShown,
                      Progress* progress) {
  const std::string temporary = TemporaryNameFor(inner, true);
  const std::string temporaryHost = root.HostPathOf(temporary);
  std::optional<VelFile> file;
  try {
    file.emplace(root, temporary, VelFile::kWrite);
  } catch (const ToolError&) {
    throw ToolError(root.Display(inner),
                    "cannot create the file: " + CreationCause(root.HostPathOf(inner)));
  }
  try {
    CopyBytes(source, *file, size, sourceShown, progress);
    file->Close();
    if (const host::Error error = host::Rename(temporaryHost, root.HostPathOf(inner))) {
      throw ToolError(root.Display(inner), error.text);
    }
  } catch (...) {
    file.reset();
    host::Remove(temporaryHost);
    throw;
  }
}

}  // namespace

VelFile::VelFile(const Root& root, std::string_view inner, uint32_t mode)
    : root_(root), shown_(root.Display(inner)), archive_(root.Kind() == RootKind::kArchive) {
  const std::string path(inner);
  handle_.reset(velfsCreateFileIndir(root.Handle(), path.c_str(), mode));
  if (!handle_) {
    std::string cause = mode == kRead ? "cannot open the file" : "cannot create the file";
    if (root.Kind() == RootKind::kDirectory && mode == kRead) {
      const std::string hostPath = root.HostPathOf(path);
      const host::Info info = host::Examine(hostPath);
      if (info.error.code == host::Error::Code::kLoop) {
        cause = "symbolic link loop";
      } else if (info.kind == host::Kind::kMissing && host::ExamineLink(hostPath).kind == host::Kind::kLink) {
        cause = "dangling symbolic link";
      } else if (info.kind == host::Kind::kFile && !host::CanRead(hostPath)) {
        cause = "permission denied";
      }
    }
    throw ToolError(shown_, cause);
  }
}

std::optional<uint64_t> VelFile::Size() {
  // Native files answer 0 for a successful seek, the others the new position; velfsTell
  // answers the position in every back-end.
  if (velfsSeek(handle_.get(), 0, 2) == -1) return std::nullopt;
  const int32_t end = velfsTell(handle_.get());
  velfsSeek(handle_.get(), 0, 0);
  position_ = 0;
  if (end < 0) return std::nullopt;
  return static_cast<uint64_t>(end);
}

std::optional<uint64_t> VelFile::CopySize() {
  if (archive_) return std::nullopt;
  return Size();
}

std::optional<uint64_t> VelFile::SizeOf(const Root& root, std::string_view inner) {
  VelFile file(root, inner, kRead);
  std::optional<uint64_t> size = file.Size();
  if (!size && root.Kind() == RootKind::kDirectory) {
    const host::Info info = host::Examine(root.HostPathOf(inner));
    if (info.kind != host::Kind::kMissing) size = info.size;
  }
  return size;
}

uint64_t VelFile::ReadSome(char* buffer, uint64_t size) {
  const uint64_t count = velfsRead(handle_.get(), buffer, size);
  if (count > size) {
    throw ToolError(
        shown_, "read failed at byte " + std::to_string(position_) + " (damaged archive member?)");
  }
  position_ += count;
  return count;
}

void VelFile::WriteAll(const char* buffer, uint64_t size) {
  errno = 0;
  if (velfsWrite(handle_.get(), buffer, size) != size) {
    // The library keeps no reason: a directory root's is the system's last error, a database
    // root's the likely cause of a refused change.
    const host::Error error = host::LastError();
    const std::string cause = root_.Kind() == RootKind::kDatabase ? root_.WriteFailureCause()
                              : errno != 0                        ? error.text
                                                                  : "the library refused it";
    throw ToolError(shown_, "write failed at byte " + std::to_string(position_) + ": " + cause);
  }
  position_ += size;
}

HostFile::HostFile(std::FILE* stream, std::string shown, bool owned)
    : stream_(stream), shown_(std::move(shown)), owned_(owned) {}

HostFile::HostFile(HostFile&& other) noexcept
    : stream_(other.stream_), shown_(std::move(other.shown_)), owned_(other.owned_) {
  other.stream_ = nullptr;
}

HostFile::~HostFile() {
  if (stream_ != nullptr && owned_) std::fclose(stream_);
}

HostFile HostFile::OpenRead(const std::string& path) {
  if (host::Examine(path).kind == host::Kind::kDirectory) throw ToolError(path, "is a directory");
  host::Error error;
  std::FILE* stream = host::OpenStream(path, "rb", &error);
  if (stream == nullptr) throw ToolError(path, error.text);
  return HostFile(stream, path, true);
}

HostFile HostFile::OpenWrite(const std::string& path, bool exclusive) {
  host::Error error;
  std::FILE* stream = host::OpenStream(path, exclusive ? "wbx" : "wb", &error);
  if (stream == nullptr) {
    throw ToolError(path, error.code == host::Error::Code::kExists ? "file exists" : error.text);
  }
  return HostFile(stream, path, true);
}

HostFile HostFile::Temporary() {
  host::Error error;
  std::FILE* stream = host::OpenTemporaryStream(&error);
  if (stream == nullptr) throw ToolError("temporary file", error.text);
  return HostFile(stream, "temporary file", true);
}

std::optional<uint64_t> HostFile::Size() const {
  uint64_t size = 0;
  if (!host::RegularFileSize(stream_, &size)) return std::nullopt;
  return size;
}

void HostFile::Rewind() {
  if (std::fflush(stream_) != 0 || std::fseek(stream_, 0, SEEK_SET) != 0) {
    throw ToolError(shown_, host::LastError().text);
  }
}

void HostFile::Close() {
  if (stream_ == nullptr) return;
  const int result = owned_ ? std::fclose(stream_) : std::fflush(stream_);
  const host::Error error = host::LastError();
  stream_ = nullptr;
  if (result != 0) throw ToolError(shown_, "write failed: " + error.text);
}

uint64_t HostFile::ReadSome(char* buffer, uint64_t size) {
  const std::size_t count = std::fread(buffer, 1, size, stream_);
  if (count < size && std::ferror(stream_)) {
    throw ToolError(shown_, "read failed: " + host::LastError().text);
  }
  return count;
}

void HostFile::WriteAll(const char* buffer, uint64_t size) {
  if (std::fwrite(buffer, 1, size, stream_) != size) {
    throw ToolError(shown_, "write failed: " + host::LastError().text);
  }
}

uint64_t CopyBytes(ByteSource& source, ByteSink& sink, std::optional<uint64_t> size,
                   const std::string& shown, Progress* progress) {
  std::vector<char> buffer(kCopyChunkBytes);
  uint64_t copied = 0;
  for (;;) {
    const uint64_t wanted = size ? std::min(kCopyChunkBytes, *size - copied) : kCopyChunkBytes;
    if (wanted == 0) break;
    const uint64_t count = source.ReadSome(buffer.data(), wanted);
    if (count == 0) break;
    sink.WriteAll(buffer.data(), count);
    copied += count;
    if (progress != nullptr) progress->AddBytes(count);
  }
  if (size) {
    char extra = 0;
    if (copied < *size) {
      throw ToolError(shown, "reading stopped at byte " + std::to_string(copied) + " of " +
                                 std::to_string(*size) + " (the file changed or is damaged)");
    }
    if (source.ReadSome(&extra, 1) != 0) {
      throw ToolError(shown, "the file grew while it was copied (expected " +
                                 std::to_string(*size) + " bytes)");
    }
  }
  return copied;
}

void ReplaceHostFile(const std::string& target, ByteSource& source, std::optional<uint64_t> size,
                     const std::string& sourceShown, Progress* progress) {
  const std::string temporary = TemporaryNameFor(target, false);
  std::optional<HostFile> output;
  try {
    output.emplace(HostFile::OpenWrite(temporary, true));
  } catch (const ToolError& error) {
    throw ToolError(target, error.Cause());
  }
  try {
    CopyBytes(source, *output, size, sourceShown, progress);
    output->Close();
    if (const host::Error error = host::Rename(temporary, target)) {
      throw ToolError(target, error.text);
    }
  } catch (...) {
    output.reset();
    host::Remove(temporary);
    throw;
  }
}

void CheckDatabaseSize(const std::string& shown, uint64_t size) {
  if (size > kMaxDatabaseFile) {
    throw ToolError(shown, std::to_string(size) +
                               " bytes is too large for a database root: the API's 32-bit file "
                               "positions reach 2147483647 bytes");
  }
}

void StoreFile(Root& root, std::string_view inner, ByteSource& source,
               std::optional<uint64_t> size, const std::string& sourceShown, Progress* progress) {
  const std::string path(inner);
  root.RequireWritable(path);
  if (root.Lookup(path) == EntryKind::kDirectory) {
    throw ToolError(root.Display(path), "is a directory");
  }
  if (root.Kind() == RootKind::kDirectory) {
    StoreInDirectory(root, path, source, size, sourceShown, progress);
    return;
  }
  if (size) {
    StoreInDatabase(root, path, source, *size, sourceShown, progress);
    return;
  }
  HostFile spool = HostFile::Temporary();
  CopyBytes(source, spool, std::nullopt, sourceShown, nullptr);
  spool.Rewind();
  StoreInDatabase(root, path, spool, spool.Size().value_or(0), sourceShown, progress);
}

void StoreFileAndCommit(Root& root, std::string_view inner, ByteSource& source,
                        std::optional<uint64_t> size, const std::string& sourceShown) {
  if (root.Kind() != RootKind::kDatabase) {
    StoreFile(root, inner, source, size, sourceShown, nullptr);
    return;
  }
  if (size) CheckDatabaseSize(sourceShown, *size);
  root.Begin();
  StoreFile(root, inner, source, size, sourceShown, nullptr);
  root.Commit();
}

}  // namespace velfs::tool
