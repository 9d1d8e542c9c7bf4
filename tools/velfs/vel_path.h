// VelPath: a path on the command line, in the library's own forms, cut into the root
// that velfsOpenDir opens and the path inside that root.
//
// - A path that names an existing host entry is a host path, as SplitStoragePath says: a
//   directory is the root itself (`assets/`), anything else is the name after the last '/' inside
//   its directory (`assets/docs/a.txt`).
// - Any other path with a ':' is a container path cut at its last ':' (`store.db:docs/a.txt`,
//   `pack.zip:`); the root keeps its ':'.
// - Any other path is a host path that does not exist yet: its root is the nearest existing
//   directory above it (`.` when there is none) and the rest is the path inside it, so that files
//   and directories can be created there (`out/new/a.txt`).
// Every '\' is read as '/', as the library reads it.
#ifndef VELFS_TOOLS_VEL_PATH_H
#define VELFS_TOOLS_VEL_PATH_H

#include <string>
#include <string_view>

namespace velfs::tool {

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
  // The last component of a path, without trailing '/' (`a.txt` for `docs/a.txt`).
  static std::string BaseName(std::string_view path);
  // How the root itself is written: `store.db:`, `assets/`, or `.`.
  std::string RootDisplay() const;

 private:
  std::string text_;
  std::string root_;
  std::string host_;
  std::string inner_;
  std::string prefix_;  // written before an inner path in Display
  bool containerForm_ = false;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_VEL_PATH_H
