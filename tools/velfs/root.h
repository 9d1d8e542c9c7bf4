// Root: one storage root opened through velfsOpenDir, with what the tool knows about it: which
// back-end serves it, whether a path inside it is a file or a directory, and its explicit
// transaction. The handle is closed by the destructor; a database root that this object created
// and never committed to is removed again, so a failed command leaves no new file behind.
#ifndef VELFS_TOOLS_ROOT_H
#define VELFS_TOOLS_ROOT_H

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>

#include "vel_path.h"
#include "velfs.h"

namespace velfs::tool {

enum class RootKind { kDirectory, kArchive, kDatabase };
enum class EntryKind { kMissing, kFile, kDirectory };

class Root {
 public:
  enum class Access {
    kRead,   // the root must exist
    kWrite,  // a missing root becomes a new database (container form) or is refused
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
  // Whether both roots are the same storage on the host (same device and inode).
  bool SameStorageAs(const Root& other) const;
  // Whether the root is the host file or directory with this device and inode.
  bool IsHostEntry(dev_t device, ino_t inode) const;

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
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_ROOT_H
