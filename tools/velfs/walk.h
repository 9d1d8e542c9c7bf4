// Walking trees: one directory level of a root (Listing), every entry below a directory of a
// root (WalkTree), and the host tree that import copies (HostTree). Each level is sorted the way
// the tool shows it: directories first, then files, each by name (bytes). The order of the
// library's listings is the back-end's own; the tool sorts so that the same tree always prints
// the same way.
//
// Symbolic links, one rule for every command (the rule of cp -r and tar): a link named on the
// command line is followed; inside a walk, a link to a file is read as the file and a link to a
// directory is listed but never entered. A walk also never enters a directory that is one of the
// directories it is inside (a cycle made by a bind mount, for example): it reports the cycle. So
// no walk repeats a path or runs forever.
#ifndef VELFS_TOOLS_WALK_H
#define VELFS_TOOLS_WALK_H

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "host.h"
#include "root.h"
#include "tool_error.h"

namespace velfs::tool {

class Listing {
 public:
  struct Entry {
    std::string name;  // without a trailing '/'
    bool isDirectory = false;
  };

  // Lists directory `inner` of `root` (empty for the root; a '/' is added when missing).
  // Throws ToolError when the library cannot list it.
  Listing(const Root& root, std::string_view inner);

  const std::vector<Entry>& Entries() const { return entries_; }
  // The entries listed without a name (a database row whose path holds "//", starts with '/' or
  // has an empty file name): no path reaches them, so they are not in Entries.
  int Unnamed() const { return unnamed_; }

 private:
  std::vector<Entry> entries_;
  int unnamed_ = 0;
};

struct WalkEntry {
  std::string path;  // relative to the walked directory, without a trailing '/'
  bool isDirectory = false;
  int depth = 0;      // 0 for the walked directory's own entries
  bool last = false;  // the last entry of its directory
  bool link = false;  // a symbolic link to a directory (directory roots): listed, not entered

  // The last component of `path`.
  std::string_view Name() const { return std::string_view(path).substr(path.rfind('/') + 1); }
};

// Calls `visit` for every entry below directory `inner` of `root`, depth first, a directory
// before the entries inside it, each level in Listing order. Throws ToolError when `inner`
// cannot be listed; a directory below it that cannot be listed, entries without a name, a cycle
// and a tree deeper than kMaxWalkDepth are reported to `problems` and the walk goes on. In a
// database root a listed subdirectory that holds no file is not visited (Root::Lookup).
constexpr int kMaxWalkDepth = 256;
void WalkTree(const Root& root, std::string_view inner, Problems& problems,
              const std::function<void(const WalkEntry&)>& visit);

// The entries of a host directory for import, depth first, each level with its directories
// first and then its files, sorted by name. Symbolic links to files are read as the files;
// links to directories are not followed, and dangling links, link loops and other kinds of entry
// (sockets, FIFOs, devices) are skipped, each with a warning on standard error.
class HostTree {
 public:
  struct Entry {
    std::string path;  // relative to the scanned directory, without a trailing '/'
    bool isDirectory = false;
    uint64_t size = 0;
  };
  // Answers true for a file to leave out (the import's own database file).
  using Exclude = std::function<bool(const host::Identity&)>;

  // Throws ToolError for a directory that cannot be read and for a name with a '\', which
  // the library would read as '/'.
  HostTree(const std::string& directory, const Exclude& exclude);

  const std::vector<Entry>& Entries() const { return entries_; }
  uint64_t Files() const { return files_; }
  uint64_t Bytes() const { return bytes_; }

 private:
  void Scan(const std::string& hostPath, const std::string& relative, const Exclude& exclude,
            std::vector<host::Identity>& ancestors);

  std::vector<Entry> entries_;
  uint64_t files_ = 0;
  uint64_t bytes_ = 0;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_WALK_H
