// TreeCommand: `velfs tree PATH` — the tree below a directory drawn with box characters,
// directories first, then files, each sorted; the last line counts directories and files.
#ifndef VELFS_TOOLS_TREE_COMMAND_H
#define VELFS_TOOLS_TREE_COMMAND_H

#include <cstdint>
#include <string>

#include "command.h"
#include "root.h"

namespace velfs::tool {

class TreeCommand : public Command {
 public:
  explicit TreeCommand(CLI::App& app);
  int Run() override;

 private:
  void Draw(const Root& root, const std::string& directory, const std::string& indent);

  std::string path_;
  uint64_t directories_ = 0;
  uint64_t files_ = 0;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_TREE_COMMAND_H
