// RemoveDirectoryCommand: `velfs rmdir PATH` — removes a directory of a database root with every
// file below it, in one transaction. The files are found by listing the tree and deleted one by
// one with velfsDeleteFile, which compares paths exactly; velfsDeleteDirectory matches with SQL
// LIKE, which ignores letter case and reads '_' and '%' as wildcards, so it would also
// remove `Docs/` or `d_cs/` with `docs/`.
#ifndef VELFS_TOOLS_REMOVE_DIRECTORY_COMMAND_H
#define VELFS_TOOLS_REMOVE_DIRECTORY_COMMAND_H

#include <string>

#include "command.h"

namespace velfs::tool {

class RemoveDirectoryCommand : public Command {
 public:
  explicit RemoveDirectoryCommand(CLI::App& app);
  int Run() override;

 private:
  std::string path_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_REMOVE_DIRECTORY_COMMAND_H
