// TreeWalk: every entry below a directory of a root, depth first, each level in Listing order.
#ifndef VELFS_TOOLS_TREE_WALK_H
#define VELFS_TOOLS_TREE_WALK_H

#include <string>
#include <string_view>
#include <vector>

#include "root.h"

namespace velfs::tool {

class TreeWalk {
 public:
  struct Entry {
    std::string path;  // relative to the walked directory, without a trailing '/'
    bool isDirectory = false;
    int depth = 0;  // 0 for the walked directory's own entries
  };

  TreeWalk(const Root& root, std::string_view inner);

  const std::vector<Entry>& Entries() const { return entries_; }

 private:
  void Walk(const Root& root, const std::string& directory, const std::string& relative, int depth);

  std::vector<Entry> entries_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_TREE_WALK_H
