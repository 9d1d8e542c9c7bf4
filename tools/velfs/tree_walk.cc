// TreeWalk: a recursion over Listing.
#include "tree_walk.h"

#include "listing.h"
#include "tool_error.h"

namespace velfs::tool {

TreeWalk::TreeWalk(const Root& root, std::string_view inner) {
  Walk(root, Listing::DirectoryPath(inner), "", 0);
}

void TreeWalk::Walk(const Root& root, const std::string& directory, const std::string& relative,
                    int depth) {
  if (depth > kMaxDepth) {
    throw ToolError(root.Display(directory), "more than " + std::to_string(kMaxDepth) +
                                                 " directory levels (a symbolic link loop?)");
  }
  const Listing listing(root, directory);
  for (const Listing::Entry& entry : listing.Entries()) {
    entries_.push_back({relative + entry.name, entry.isDirectory, depth});
    if (entry.isDirectory) {
      Walk(root, directory + entry.name + '/', relative + entry.name + '/', depth + 1);
    }
  }
}

}  // namespace velfs::tool
