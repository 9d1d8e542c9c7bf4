// The root of a command-line path: the three forms of a path (see root.h), and opening a root
// through velfsOpenDir with the checks that give a failure its cause. The back-end of a root is
// told apart as the host file system and the API show it: an existing directory is served by
// the native back-end; of the files the library accepts, the database roots are the ones on
// which velfsBeginTrans succeeds (native and archive roots answer false), and the others are
// ZIP archives. A root opened for reading only (velfsOpenDirReadOnly, which creates and changes
// nothing) begins no transaction: an SQLite file that it opens is a database root.
#include "root.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <utility>
#include <vector>

#include "database_diagnosis.h"
#include "tool_error.h"

namespace velfs::tool {

namespace {

bool IsHostDirectory(const std::string& path) {
  return host::Examine(path).kind == host::Kind::kDirectory;
}

std::string ParentOf(const std::string& hostPath) {
  std::string path = hostPath;
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  const std::size_t cut = path.rfind('/');
  if (cut == std::string::npos) return ".";
  return cut == 0 ? std::string("/") : path.substr(0, cut);
}

// The 16-byte header that starts every SQLite database file.
bool HasSqliteHeader(const std::string& path) {
  static constexpr char kHeader[] = "SQLite format 3";  // with its NUL: 16 bytes
  char bytes[sizeof kHeader] = {};
  host::Error error;
  std::FILE* file = host::OpenStream(path, "rb", &error);
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

// Whether a database root holds a file whose path starts with `directory` (ending in '/'),
// compared exactly. A database has no directories of its own, only the paths of its files; its
// listing finds subdirectories with SQL LIKE, which ignores letter case and reads '_' and '%' as
// wildcards, so a listed subdirectory is real only when a file lies below it. Files are listed
// by an exact comparison of their Path.
// Below kMaxDepth levels a database is not searched (the walks of the tool stop there too).
constexpr int kMaxDepth = 256;
bool HoldsAFile(DirHandle* handle, const std::string& directory, int depth) {
  EnumHandle* list = velfsCreateEnumIndir(handle, directory.c_str());
  if (list == nullptr) return false;
  std::vector<std::string> subdirectories;
  bool found = false;
  while (!found && velfsMoveNext(list)) {
    char* name = nullptr;
    if (!velfsGetName(list, &name)) continue;
    std::string entry = name;
    std::free(name);
    while (!entry.empty() && entry.back() == '/') entry.pop_back();
    // An entry without a name is a row all the same.
    if (entry.empty() || !velfsIsDirectory(list)) {
      found = true;
    } else {
      subdirectories.push_back(directory + entry + '/');
    }
  }
  velfsCloseEnum(list);
  if (found || depth >= kMaxDepth) return found;
  return std::any_of(subdirectories.begin(), subdirectories.end(),
                     [&](const std::string& below) { return HoldsAFile(handle, below, depth + 1); });
}

using Clock = std::chrono::steady_clock;
const Clock::time_point gStart = Clock::now();
std::chrono::milliseconds gLockWait{5000};

}  // namespace

void SetLockWait(std::chrono::milliseconds wait) { gLockWait = wait; }

bool WaitForLock(int attempt) {
  // 10 ms, doubling to at most half a second, never past the end of the wait.
  const auto pause = std::chrono::milliseconds(10) * (1 << std::min(attempt - 1, 6));
  const auto left = gStart + gLockWait - Clock::now();
  if (left <= Clock::duration::zero()) return false;
  std::this_thread::sleep_for(std::min<Clock::duration>(
      std::min<Clock::duration>(pause, std::chrono::milliseconds(500)), left));
  return true;
}

const char* Root::ContainerKindOf(const std::string& hostPath) {
  if (host::Examine(hostPath).kind != host::Kind::kFile) return nullptr;
  if (HasSqliteHeader(hostPath)) return "SQLite database";
  host::Error error;
  std::FILE* file = host::OpenStream(hostPath, "rb", &error);
  if (file == nullptr) return nullptr;
  char bytes[4] = {};
  const std::size_t count = std::fread(bytes, 1, sizeof bytes, file);
  std::fclose(file);
  // A local file header, or the end record of an empty archive.
  const bool zip = count == 4 && std::memcmp(bytes, "PK", 2) == 0 &&
                   ((bytes[2] == 3 && bytes[3] == 4) || (bytes[2] == 5 && bytes[3] == 6));
  return zip ? "ZIP archive" : nullptr;
}

VelPath VelPath::Parse(std::string_view text) {
  if (text.empty()) throw ToolError("", "empty path", ToolError::kUsage);
  VelPath path;
  path.text_.assign(text);
  std::replace(path.text_.begin(), path.text_.end(), '\\', '/');
  const std::string& normal = path.text_;

  const host::Kind entry = host::Examine(normal).kind;
  if (entry == host::Kind::kDirectory) {
    path.root_ = path.host_ = normal;
    path.prefix_ = normal.back() == '/' ? normal : normal + '/';
    return path;
  }
  const std::size_t colon = normal.rfind(':');
  if (entry == host::Kind::kMissing && colon != std::string::npos) {
    path.containerForm_ = true;
    path.root_ = path.prefix_ = normal.substr(0, colon + 1);
    path.host_ = normal.substr(0, colon);
    path.inner_ = normal.substr(colon + 1);
    return path;
  }
  // A host file, or a host path still to be made: the nearest existing directory above it.
  std::size_t cut = normal.size();
  if (normal.back() == '/') --cut;  // `out/` names the entry `out`
  for (;;) {
    cut = cut == 0 ? std::string::npos : normal.rfind('/', cut - 1);
    if (cut == std::string::npos) {
      path.root_ = path.host_ = "./";
      path.inner_ = normal;
      return path;
    }
    const std::string parent = normal.substr(0, cut + 1);
    if (IsHostDirectory(parent)) {
      path.root_ = path.host_ = path.prefix_ = parent;
      path.inner_ = normal.substr(cut + 1);
      return path;
    }
  }
}

std::string VelPath::Display(std::string_view inner) const {
  std::string shown = prefix_;
  shown.append(inner);
  return shown.empty() ? std::string(".") : shown;
}

std::string VelPath::BaseName(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  const std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string VelPath::DirectoryPath(std::string_view inner) {
  std::string directory(inner);
  if (!directory.empty() && directory.back() != '/') directory += '/';
  return directory;
}

Root::Root(VelPath path, DirHandle* handle, RootKind kind, bool created)
    : path_(std::move(path)),
      handle_(handle),
      kind_(kind),
      created_(created),
      identity_(host::Examine(path_.HostPath()).identity) {}

Root::~Root() {
  if (!handle_) return;  // moved from
  handle_.reset();       // an open transaction is rolled back here
  if (created_ && !committed_) host::Remove(path_.HostPath());
}

Root Root::Open(const VelPath& path, Access access) {
  // A root is named by its host path: "store.db", not "store.db:".
  const std::string& shown = path.HostPath();
  if (shown.empty()) {
    throw ToolError("", "no root before the ':' of " + path.Text(), ToolError::kUsage);
  }

  const host::Info info = host::Examine(shown);
  const bool exists = info.kind != host::Kind::kMissing;
  if (!exists) {
    if (info.error.code == host::Error::Code::kAccess) throw ToolError(shown, "permission denied");
    if (info.error.code == host::Error::Code::kNotDirectory) {
      throw ToolError(shown, "root not found (part of the path is a file)");
    }
    if (access != Access::kWrite || !path.IsContainerForm()) {
      throw ToolError(shown, "root not found");
    }
    const std::string parent = ParentOf(shown);
    if (!IsHostDirectory(parent)) {
      throw ToolError(shown, "cannot create a database here: directory " + parent + " not found");
    }
  } else if (info.kind != host::Kind::kDirectory && info.kind != host::Kind::kFile) {
    throw ToolError(shown, "not a directory, ZIP archive or database file");
  }

  const auto open = [&path, access] {
    return access == Access::kReadOnly ? velfsOpenDirReadOnly(path.RootPath().c_str())
                                       : velfsOpenDir(path.RootPath().c_str());
  };
  DirHandle* handle = open();
  // A database that another program holds locked cannot be opened; the open is tried again
  // until the lock wait runs out. Any other cause ends the tries at once.
  const bool database = info.kind == host::Kind::kFile && HasSqliteHeader(shown);
  std::string cause;
  for (int attempt = 1; handle == nullptr && database && host::CanRead(shown); ++attempt) {
    cause = DiagnoseDatabase(shown);
    if (cause.rfind("locked", 0) != 0 || !WaitForLock(attempt)) break;
    handle = open();
  }
  if (handle == nullptr) {
    if (!exists) throw ToolError(shown, "cannot create a database here (directory not writable?)");
    if (!host::CanRead(shown)) throw ToolError(shown, "permission denied");
    if (database) {
      const bool foreign = cause.find("no \"FileStorage\"") != std::string::npos;
      if (foreign && !host::CanWrite(shown)) {
        throw ToolError(shown, "a read-only SQLite database, " + cause);
      }
      throw ToolError(shown, "the SQLite database cannot be opened: " +
                                 (cause.empty() ? std::string("SQLite refused it") : cause));
    }
    if (info.kind == host::Kind::kFile && ContainerKindOf(shown) != nullptr) {
      // The library maps an archive into memory whole: a limit on the address space refuses it.
      throw ToolError(shown, "the ZIP archive cannot be opened: damaged or crafted (members "
                             "that overlap, for example), or too large to map into memory");
    }
    if (info.kind == host::Kind::kFile) {
      throw ToolError(shown, "neither a ZIP archive nor an SQLite database");
    }
    throw ToolError(shown, "cannot open the directory");
  }
  RootKind kind = RootKind::kDirectory;
  if (info.kind != host::Kind::kDirectory && access == Access::kReadOnly) {
    // A read-only root begins no transaction; the library opened the file, so an SQLite file
    // is a database root and anything else an archive.
    kind = database ? RootKind::kDatabase : RootKind::kArchive;
  } else if (info.kind != host::Kind::kDirectory) {
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
  if (kind_ == RootKind::kDatabase) {
    return HoldsAFile(Handle(), text, 0) ? EntryKind::kDirectory : EntryKind::kMissing;
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
  std::string hostPath = path_.HostPath();
  if (!hostPath.empty() && hostPath.back() != '/') hostPath += '/';
  hostPath.append(inner);
  return hostPath;
}

void Root::RequireWritable(std::string_view inner) const {
  if (kind_ == RootKind::kArchive) throw ToolError(Subject(inner), "read-only ZIP archive");
}

void Root::RequireDatabase(std::string_view inner, std::string_view operation) const {
  RequireWritable(inner);
  if (kind_ == RootKind::kDirectory) {
    throw ToolError(Subject(inner), "cannot " + std::string(operation) +
                                        " in a directory root (velfs deletes, copies and moves "
                                        "files only inside database roots)");
  }
}

void Root::Begin() {
  if (!velfsBeginTrans(Handle())) {
    throw WriteFailure(path_.HostPath(), "cannot begin a transaction");
  }
}

void Root::Commit() {
  if (!velfsCommitTrans(Handle())) {
    throw WriteFailure(path_.HostPath(), "the commit failed and nothing was changed");
  }
  committed_ = true;
}

std::string Root::Subject(std::string_view inner) const {
  return inner.empty() ? path_.HostPath() : Display(inner);
}

std::string Root::WriteFailureCause() const {
  const std::string& hostPath = path_.HostPath();
  if (!host::CanWrite(hostPath)) return "the database file is read-only";
  if (!host::CanWrite(ParentOf(hostPath))) {
    return "its directory is not writable (SQLite needs a journal beside it)";
  }
  uint64_t free = 0;
  // SQLite writes whole pages and a journal beside the database. Asked first: a full disk can
  // leave a journal that makes the read-only diagnosis below fail for a reason of its own.
  if (!host::FreeSpace(ParentOf(hostPath), &free) && free < (uint64_t{1} << 20)) {
    return "No space left on device";
  }
  const std::string cause = DiagnoseDatabase(hostPath);
  if (!cause.empty()) return cause;
  return "the database may be locked by another program, or the disk full";
}

ToolError Root::WriteFailure(const std::string& subject, const std::string& what) const {
  const std::string cause = WriteFailureCause();
  ToolError error(subject, what + ": " + cause);
  if (cause.find("locked") != std::string::npos) error.MarkLocked();
  return error;
}

}  // namespace velfs::tool
