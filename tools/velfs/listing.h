// Listing: one directory level of a root, read through velfsCreateEnumIndir and sorted the way
// the tool shows it: directories first, then files, each by name (bytes). The order of the
// library's listings is the back-end's own; the tool sorts so that the same
// tree always prints the same way.
#ifndef VELFS_TOOLS_LISTING_H
#define VELFS_TOOLS_LISTING_H

#include <string>
#include <string_view>
#include <vector>

#include "root.h"

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

  // `inner` as a directory path for the library: empty, or ending in '/'.
  static std::string DirectoryPath(std::string_view inner);

 private:
  std::vector<Entry> entries_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_LISTING_H
