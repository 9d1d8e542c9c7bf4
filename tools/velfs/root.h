// The root of a command-line path: VelPath cuts what the user typed into the root that
// velfsOpenDir opens and the path inside it; Root is that root open, with what the tool knows
// about it (which back-end serves it, what a path inside it names, its explicit transaction).
#ifndef VELFS_TOOLS_ROOT_H
#define VELFS_TOOLS_ROOT_H

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "host.h"
#include "tool_error.h"
#include "velfs.h"

namespace velfs::tool {

// A path on the command line, in the library's own forms:
// - A path that names an existing host entry is a host path: a directory is the root itself
//   (`assets/`), anything else is the name after the last '/' inside its directory
//   (`assets/docs/a.txt`).
// - Any other path with a ':' is a container path cut at its last ':' (`store.db:docs/a.txt`,
//   `pack.zip:`); the root keeps its ':'.
// - Any other path is a host path that does not exist yet: its root is the nearest existing
//   directory above it (`./` when there is none) and the rest is the path inside it, so that
//   files and directories can be created there (`out/new/a.txt`).
// Every '\' is read as '/', as the library reads it.
class VelPath {
 public:
  // Throws ToolError (usage) for an empty path.
  static VelPath Parse(std::string_view text);

  // The path as given, with '/' for '\'.
  const std::string& Text() const { return text_; }
  // What velfsOpenDir receives (`store.db:`, `assets/`, `./`).
  const std::string& RootPath() const { return root_; }
  // The root on the host file system: RootPath without its trailing ':'.
  const std::string& HostPath() const { return host_; }
  // The path inside the root; empty for the root itself.
  const std::string& Inner() const { return inner_; }
  // True for the container form (`store.db:...`).
  bool IsContainerForm() const { return containerForm_; }

  // How a path inside the same root is written on the command line: `store.db:docs/a.txt`,
  // `assets/docs/a.txt`, or `a.txt` for a root that was not written out.
  std::string Display(std::string_view inner) const;
  // How the root itself is written: `store.db:`, `assets/`, or `.`.
  std::string RootDisplay() const { return prefix_.empty() ? std::string(".") : prefix_; }
  // The last component of a path, without trailing '/' (`a.txt` for `docs/a.txt`).
  static std::string BaseName(std::string_view path);
  // `inner` as a directory path for the library: empty, or ending in '/'.
  static std::string DirectoryPath(std::string_view inner);

 private:
  std::string text_;
  std::string root_;
  std::string host_;
  std::string inner_;
  std::string prefix_;  // written before an inner path in Display
  bool containerForm_ = false;
};

// How long the tool waits for another program's lock on a database (--wait): opening a locked
// database and a command whose change finds the database locked are retried, with growing
// pauses, until this much time has passed since the command started.
void SetLockWait(std::chrono::milliseconds wait);
// Sleeps before attempt `attempt` (1, 2, ...) of something that found a lock: answers false
// without sleeping when the wait has run out.
bool WaitForLock(int attempt);

enum class RootKind { kDirectory, kArchive, kDatabase };
enum class EntryKind { kMissing, kFile, kDirectory };

// One storage root opened through velfsOpenDir. The handle is closed by the destructor, which
// rolls back a transaction left open; a database file that this object created and never
// committed to is removed again, so a failed command leaves no new file behind.
class Root {
 public:
  enum class Access {
    kReadOnly,  // the root must already be one (velfsOpenDirReadOnly): nothing is created or
                // changed, not even a FileStorage table in someone else's database
    kRead,      // the root must exist; files in it may be changed
    kWrite,     // a missing root becomes a new database (container form) or is refused
  };

  // Opens the root of `path`; throws ToolError naming the root and the likely cause.
  static Root Open(const VelPath& path, Access access);

  Root(Root&&) noexcept = default;
  Root& operator=(Root&&) noexcept = default;
  ~Root();

  RootKind Kind() const { return kind_; }
  // "directory", "ZIP archive" or "SQLite database".
  static const char* KindName(RootKind kind);
  DirHandle* Handle() const { return handle_.get(); }
  std::string Display(std::string_view inner) const { return path_.Display(inner); }

  // What `inner` names: the empty path is the root directory; a path ending in '/' can only be
  // a directory. A directory is one that the existence test knows or that lists any entry (a ZIP
  // directory may exist only as the leading part of member names).
  EntryKind Lookup(std::string_view inner) const;
  // Throw ToolError naming `path` (a path inside this root) unless Lookup finds the kind wanted:
  // RequireFile answers a missing path with "no such file" and a directory with
  // `directoryCause`; RequireDirectory answers with `missingCause` and `fileCause`.
  void RequireFile(const VelPath& path, std::string_view directoryCause) const;
  void RequireDirectory(const VelPath& path, std::string_view missingCause,
                        std::string_view fileCause) const;
  // The file a copy into `inner` makes: `inner` itself, or `name` inside it when `inner` is a
  // directory (the root, a path ending in '/', or an existing directory).
  std::string TargetIn(std::string_view inner, std::string_view name) const;
  // Directory roots: the host path of a path inside the root.
  std::string HostPathOf(std::string_view inner) const;
  // Whether the root is the host file or directory `identity` (both roots the same storage when
  // given the other's identity).
  bool Is(const host::Identity& identity) const { return identity_ == identity; }
  const host::Identity& Identity() const { return identity_; }

  // "SQLite database" or "ZIP archive" when the host file `hostPath` starts as one (a root the
  // tool should not replace by mistake), else null.
  static const char* ContainerKindOf(const std::string& hostPath);

  // Throws ToolError unless files can be written into this root (`inner` names the subject).
  void RequireWritable(std::string_view inner) const;
  // Throws ToolError unless files can be deleted, copied and moved in this root.
  void RequireDatabase(std::string_view inner, std::string_view operation) const;

  // Database roots: velfsBeginTrans / velfsCommitTrans. Both throw ToolError on failure; closing
  // the root without a commit rolls the transaction back.
  void Begin();
  void Commit();

  // How a message names `inner`: the root by its host path ("store.db"), else as Display does.
  std::string Subject(std::string_view inner) const;
  // The likely cause of a refused change to a database root, for messages.
  std::string WriteFailureCause() const;
  // The failure "SUBJECT: WHAT: CAUSE" of a refused change, marked Locked when the likely cause
  // is another program's lock.
  ToolError WriteFailure(const std::string& subject, const std::string& what) const;

 private:
  struct CloseDir {
    void operator()(DirHandle* handle) const { velfsCloseDir(handle); }
  };

  Root(VelPath path, DirHandle* handle, RootKind kind, bool created);

  VelPath path_;
  std::unique_ptr<DirHandle, CloseDir> handle_;
  RootKind kind_;
  bool created_;  // this object made the database file
  bool committed_ = false;
  host::Identity identity_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_ROOT_H
