// Root: opening a root through velfsOpenDir with the checks that give a failure its cause, and
// the back-end of the root as the host file system and the API show it: an existing
// directory is served by the native back-end; of the files the library accepts, the database
// roots are the ones on which velfsBeginTrans succeeds (native and archive roots answer false),
// and the others are ZIP archives.
#include "root.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "tool_error.h"

namespace velfs::tool {

namespace {

std::string ParentOf(const std::string& host) {
  std::string path = host;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const std::size_t cut = path.rfind('/');
  if (cut == std::string::npos) return ".";
  return cut == 0 ? std::string("/") : path.substr(0, cut);
}

bool IsDirectory(const std::string& path) {
  struct stat info {};
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

// The 16-byte header that starts every SQLite database file.
bool HasSqliteHeader(const std::string& path) {
  static constexpr char kHeader[] = "SQLite format 3";  // with its NUL: 16 bytes
  char bytes[sizeof kHeader] = {};
  std::FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) return false;
  const std::size_t count = std::fread(bytes, 1, sizeof bytes, file);
  std::fclose(file);
  return count == sizeof bytes && std::memcmp(bytes, kHeader, sizeof bytes) == 0;
}

bool ListsAnything(DirHandle* handle, const std::string& directory) {
  EnumHandle* list = velfsCreateEnumIndir(handle, directory.c_str());
  const bool any = list != nullptr && velfsMoveNext(list);
  velfsCloseEnum(list);
  return any;
}

}  // namespace

Root::Root(VelPath path, DirHandle* handle, RootKind kind, bool created)
    : path_(std::move(path)), handle_(handle), kind_(kind), created_(created) {
  struct stat info {};
  if (::stat(path_.HostPath().c_str(), &info) == 0) {
    device_ = info.st_dev;
    inode_ = info.st_ino;
  }
}

Root::~Root() {
  if (!handle_) return;  // moved from
  handle_.reset();       // an open transaction is rolled back here
  if (created_ && !committed_) ::unlink(path_.HostPath().c_str());
}

Root Root::Open(const VelPath& path, Access access) {
  const std::string& host = path.HostPath();
  // A root is named by its host path: "store.db", not "store.db:".
  const std::string& shown = host;
  if (host.empty()) {
    throw ToolError("", "no root before the ':' of " + path.Text(), ToolError::kUsage);
  }

  struct stat info {};
  const bool exists = ::stat(host.c_str(), &info) == 0;
  if (!exists) {
    const int cause = errno;
    if (cause == EACCES) throw ToolError(shown, "permission denied");
    if (cause == ENOTDIR) throw ToolError(shown, "root not found (part of the path is a file)");
    if (access == Access::kRead || !path.IsContainerForm()) {
      throw ToolError(shown, "root not found");
    }
    const std::string parent = ParentOf(host);
    if (!IsDirectory(parent)) {
      throw ToolError(shown, "cannot create a database here: directory " + parent + " not found");
    }
  } else if (!S_ISDIR(info.st_mode) && !S_ISREG(info.st_mode)) {
    throw ToolError(shown, "not a directory, ZIP archive or database file");
  }

  DirHandle* handle = velfsOpenDir(path.RootPath().c_str());
  if (handle == nullptr) {
    if (!exists) throw ToolError(shown, "cannot create a database here (directory not writable?)");
    if (::access(host.c_str(), R_OK) != 0) throw ToolError(shown, "permission denied");
    if (S_ISREG(info.st_mode) && HasSqliteHeader(host)) {
      throw ToolError(shown, "the SQLite database cannot be opened (locked by another program?)");
    }
    if (S_ISREG(info.st_mode)) {
      throw ToolError(shown, "neither a ZIP archive nor an SQLite database");
    }
    throw ToolError(shown, "cannot open the directory");
  }
  RootKind kind = RootKind::kDirectory;
  if (!exists || !S_ISDIR(info.st_mode)) {
    // Transactions work on database roots only.
    kind = RootKind::kArchive;
    if (velfsBeginTrans(handle)) {
      velfsCommitTrans(handle);
      kind = RootKind::kDatabase;
    }
  }
  return Root(path, handle, kind, !exists);
}

const char* Root::KindName(RootKind kind) {
  switch (kind) {
    case RootKind::kDirectory:
      return "directory";
    case RootKind::kArchive:
      return "ZIP archive";
    case RootKind::kDatabase:
      return "SQLite database";
  }
  return "";
}

EntryKind Root::Lookup(std::string_view inner) const {
  if (inner.empty()) return EntryKind::kDirectory;
  std::string text(inner);
  bool exists = false;
  if (text.back() != '/') {
    if (velfsIsFileExist(Handle(), text.c_str(), &exists) && exists) return EntryKind::kFile;
    text += '/';
  }
  exists = false;
  if (velfsIsDirectoryExist(Handle(), text.c_str(), &exists) && exists) {
    return EntryKind::kDirectory;
  }
  return ListsAnything(Handle(), text) ? EntryKind::kDirectory : EntryKind::kMissing;
}

void Root::RequireFile(const VelPath& path, std::string_view directoryCause) const {
  switch (Lookup(path.Inner())) {
    case EntryKind::kMissing:
      throw ToolError(path.Text(), "no such file");
    case EntryKind::kDirectory:
      throw ToolError(path.Text(), std::string(directoryCause));
    case EntryKind::kFile:
      return;
  }
}

void Root::RequireDirectory(const VelPath& path, std::string_view missingCause,
                            std::string_view fileCause) const {
  switch (Lookup(path.Inner())) {
    case EntryKind::kMissing:
      throw ToolError(path.Text(), std::string(missingCause));
    case EntryKind::kFile:
      throw ToolError(path.Text(), std::string(fileCause));
    case EntryKind::kDirectory:
      return;
  }
}

std::string Root::TargetIn(std::string_view inner, std::string_view name) const {
  std::string target(inner);
  if (target.empty() || target.back() == '/') return target.append(name);
  if (Lookup(target) == EntryKind::kDirectory) return (target += '/').append(name);
  return target;
}

std::string Root::HostPathOf(std::string_view inner) const {
  std::string host = path_.HostPath();
  if (!host.empty() && host.back() != '/') host += '/';
  host.append(inner);
  return host;
}

bool Root::SameStorageAs(const Root& other) const {
  return inode_ != 0 && device_ == other.device_ && inode_ == other.inode_;
}

bool Root::IsHostEntry(dev_t device, ino_t inode) const {
  return inode_ != 0 && device_ == device && inode_ == inode;
}

void Root::RequireWritable(std::string_view inner) const {
  if (kind_ == RootKind::kArchive) throw ToolError(Subject(inner), "read-only ZIP archive");
}

void Root::RequireDatabase(std::string_view inner, std::string_view operation) const {
  RequireWritable(inner);
  if (kind_ == RootKind::kDirectory) {
    throw ToolError(Subject(inner), std::string("cannot ") + std::string(operation) +
                                        " in a directory root (velfs deletes, copies and moves "
                                        "files only inside database roots)");
  }
}

void Root::Begin() {
  if (!velfsBeginTrans(Handle())) {
    throw ToolError(path_.HostPath(), "cannot begin a transaction: " + WriteFailureCause());
  }
}

void Root::Commit() {
  if (!velfsCommitTrans(Handle())) {
    throw ToolError(path_.HostPath(),
                    "the commit failed and nothing was changed: " + WriteFailureCause());
  }
  committed_ = true;
}

std::string Root::Subject(std::string_view inner) const {
  return inner.empty() ? path_.HostPath() : Display(inner);
}

std::string Root::WriteFailureCause() const {
  const std::string& host = path_.HostPath();
  if (::access(host.c_str(), W_OK) != 0) return "the database file is read-only";
  if (::access(ParentOf(host).c_str(), W_OK) != 0) {
    return "its directory is not writable (SQLite needs a journal beside it)";
  }
  return "the database may be locked by another program, or the disk full";
}

}  // namespace velfs::tool
