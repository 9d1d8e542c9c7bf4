// HostTree: the entries of a host directory for import, depth first, each level with its
// directories first and then its files, sorted by name. Symbolic links to files are read as the
// files; links to directories are not followed, and other kinds of entry (sockets, FIFOs,
// devices) are skipped, each with a warning on standard error.
#ifndef VELFS_TOOLS_HOST_TREE_H
#define VELFS_TOOLS_HOST_TREE_H

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace velfs::tool {

class HostTree {
 public:
  struct Entry {
    std::string path;  // relative to the scanned directory, without a trailing '/'
    bool isDirectory = false;
    uint64_t size = 0;
  };
  // Answers true for a file to leave out (the import's own database file).
  using Exclude = std::function<bool(dev_t, ino_t)>;

  // Throws ToolError for a directory that cannot be read and for a name with a '\', which
  // the library would read as '/'.
  HostTree(const std::string& directory, const Exclude& exclude);

  const std::vector<Entry>& Entries() const { return entries_; }
  uint64_t Files() const { return files_; }
  uint64_t Bytes() const { return bytes_; }

 private:
  void Scan(const std::string& host, const std::string& relative, const Exclude& exclude);

  std::vector<Entry> entries_;
  uint64_t files_ = 0;
  uint64_t bytes_ = 0;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_HOST_TREE_H
