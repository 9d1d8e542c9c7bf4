// RemoveDirectoryCommand: TreeWalk, then velfsDeleteFile for each file in one transaction.
#include "remove_directory_command.h"

#include "listing.h"
#include "root.h"
#include "tool_error.h"
#include "tree_walk.h"
#include "vel_path.h"

namespace velfs::tool {

RemoveDirectoryCommand::RemoveDirectoryCommand(CLI::App& app)
    : Command(app, "rmdir", "Remove a directory and everything below it from a database root",
              "velfs rmdir store.db:docs/drafts/") {
  Subcommand()
      .add_option("PATH", path_, "Directory in a database root (store.db:docs/)")
      ->required();
}

int RemoveDirectoryCommand::Run() {
  const VelPath path = VelPath::Parse(path_);
  Root root = Root::Open(path, Root::Access::kRead);
  const std::string& inner = path.Inner();
  root.RequireDatabase(inner, "remove directories");
  if (inner.empty() || inner == "/") {
    throw ToolError(
        path.HostPath(),
        "cannot remove the root directory: remove its files with rm, or delete the database");
  }
  root.RequireDirectory(path, "no such directory", "not a directory (rm deletes a file)");
  const std::string directory = Listing::DirectoryPath(inner);
  const TreeWalk tree(root, directory);
  root.Begin();
  for (const TreeWalk::Entry& entry : tree.Entries()) {
    if (entry.isDirectory) continue;
    const std::string file = directory + entry.path;
    if (!velfsDeleteFile(root.Handle(), file.c_str())) {
      throw ToolError(root.Display(file),
                      "cannot delete, nothing was removed: " + root.WriteFailureCause());
    }
  }
  root.Commit();
  return 0;
}

}  // namespace velfs::tool
