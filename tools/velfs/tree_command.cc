// TreeCommand: a recursion over Listing, printing "├── ", "└── ", "│   " and "    " (UTF-8).
#include "tree_command.h"

#include <cstdio>

#include "listing.h"
#include "vel_path.h"

namespace velfs::tool {

TreeCommand::TreeCommand(CLI::App& app)
    : Command(app, "tree", "Draw the tree below a directory or root", "velfs tree pack.zip:") {
  Subcommand()
      .add_option("PATH", path_, "A directory or a root (store.db:, pack.zip:)")
      ->required();
}

int TreeCommand::Run() {
  const VelPath path = VelPath::Parse(path_);
  const Root root = Root::Open(path, Root::Access::kRead);
  root.RequireDirectory(path, "no such file or directory", "not a directory");
  std::printf("%s\n", path.Text().c_str());
  Draw(root, Listing::DirectoryPath(path.Inner()), "");
  std::printf("\n%llu %s, %llu %s\n", static_cast<unsigned long long>(directories_),
              directories_ == 1 ? "directory" : "directories",
              static_cast<unsigned long long>(files_), files_ == 1 ? "file" : "files");
  return 0;
}

void TreeCommand::Draw(const Root& root, const std::string& directory, const std::string& indent) {
  const Listing listing(root, directory);
  const auto& entries = listing.Entries();
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const bool last = i + 1 == entries.size();
    const Listing::Entry& entry = entries[i];
    std::printf("%s%s%s%s\n", indent.c_str(), last ? "└── " : "├── ", entry.name.c_str(),
                entry.isDirectory ? "/" : "");
    if (entry.isDirectory) {
      ++directories_;
      Draw(root, directory + entry.name + '/', indent + (last ? "    " : "│   "));
    } else {
      ++files_;
    }
  }
}

}  // namespace velfs::tool
