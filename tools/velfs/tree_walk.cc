// TreeWalk: a recursion over Listing.
#include "tree_walk.h"

#include "listing.h"

namespace velfs::tool {

TreeWalk::TreeWalk(const Root& root, std::string_view inner) {
  Walk(root, Listing::DirectoryPath(inner), "", 0);
}

void TreeWalk::Walk(const Root& root, const std::string& directory, const std::string& relative,
                    int depth) {
  const Listing listing(root, directory);
  for (const Listing::Entry& entry : listing.Entries()) {
    entries_.push_back({relative + entry.name, entry.isDirectory, depth});
    if (entry.isDirectory) {
      Walk(root, directory + entry.name + '/', relative + entry.name + '/', depth + 1);
    }
  }
}

}  // namespace velfs::tool
