// RootWriter: the two ways of storing a file without leaving half of it (see root_writer.h).
#include "root_writer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host_file.h"
#include "tool_error.h"
#include "transfer.h"
#include "vel_file.h"

namespace velfs::tool {

namespace {

// Why a file cannot be made at `host`: the nearest existing entry above it is a file, or a
// directory that cannot be written.
std::string CreationCause(std::string host) {
  for (std::size_t slash = host.rfind('/'); slash != std::string::npos && slash > 0;
       slash = host.rfind('/', slash - 1)) {
    host.resize(slash);
    struct stat info {};
    if (::stat(host.c_str(), &info) != 0) continue;
    if (!S_ISDIR(info.st_mode)) return host + " is not a directory";
    if (::access(host.c_str(), W_OK) != 0) return "directory " + host + " is not writable";
    break;
  }
  return "the library could not open it for writing";
}

}  // namespace

void RootWriter::CheckDatabaseSize(const std::string& shown, uint64_t size) {
  if (size > kMaxDatabaseFile) {
    throw ToolError(shown, std::to_string(size) +
                               " bytes is too large for a database root: the API's 32-bit file "
                               "positions reach 2147483647 bytes");
  }
}

void RootWriter::Store(Root& root, std::string_view inner, ByteSource& source,
                       std::optional<uint64_t> size, const std::string& sourceShown,
                       Progress* progress) {
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
  Transfer::Copy(source, spool, std::nullopt, sourceShown, nullptr);
  spool.Rewind();
  StoreInDatabase(root, path, spool, spool.Size().value_or(0), sourceShown, progress);
}

void RootWriter::StoreAndCommit(Root& root, std::string_view inner, ByteSource& source,
                                std::optional<uint64_t> size, const std::string& sourceShown) {
  if (root.Kind() != RootKind::kDatabase) {
    Store(root, inner, source, size, sourceShown, nullptr);
    return;
  }
  if (size) CheckDatabaseSize(sourceShown, *size);
  root.Begin();
  Store(root, inner, source, size, sourceShown, nullptr);
  root.Commit();
}

void RootWriter::StoreInDatabase(Root& root, const std::string& inner, ByteSource& source,
                                 uint64_t size, const std::string& sourceShown,
                                 Progress* progress) {
  const std::string shown = root.Display(inner);
  CheckDatabaseSize(sourceShown, size);
  if (root.Lookup(inner) == EntryKind::kFile && !velfsDeleteFile(root.Handle(), inner.c_str())) {
    throw ToolError(shown, "cannot replace the file: " + root.WriteFailureCause());
  }
  VelFile file(root, inner, VelFile::kWrite);
  if (!file.Resize(size)) {
    if (size > kSqliteDefaultMaxLength) {
      throw ToolError(shown, "the database refused " + std::to_string(size) +
                                 " bytes: more than SQLite stores in one row (1000000000 bytes "
                                 "unless SQLite was built with a larger SQLITE_MAX_LENGTH)");
    }
    throw ToolError(shown, "the database refused the file: " + root.WriteFailureCause());
  }
  Transfer::Copy(source, file, size, sourceShown, progress);
}

void RootWriter::StoreInDirectory(Root& root, const std::string& inner, ByteSource& source,
                                  std::optional<uint64_t> size, const std::string& sourceShown,
                                  Progress* progress) {
  const std::size_t slash = inner.rfind('/');
  const std::size_t nameStart = slash == std::string::npos ? 0 : slash + 1;
  const std::string temporary = inner.substr(0, nameStart) + '.' + inner.substr(nameStart) +
                                ".velfs-" + std::to_string(::getpid());
  const std::string temporaryHost = root.HostPathOf(temporary);
  std::optional<VelFile> file;
  try {
    file.emplace(root, temporary, VelFile::kWrite);
  } catch (const ToolError&) {
    throw ToolError(root.Display(inner),
                    "cannot create the file: " + CreationCause(root.HostPathOf(inner)));
  }
  try {
    Transfer::Copy(source, *file, size, sourceShown, progress);
    file->Close();
    if (std::rename(temporaryHost.c_str(), root.HostPathOf(inner).c_str()) != 0) {
      throw ToolError(root.Display(inner), std::strerror(errno));
    }
  } catch (...) {
    file.reset();
    std::remove(temporaryHost.c_str());
    throw;
  }
}

}  // namespace velfs::tool
