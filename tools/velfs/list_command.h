// ListCommand: `velfs ls [-l] [-R] PATH` — the entries of a directory (directories first, with a
// trailing '/'), or of the whole tree below it with -R (paths relative to PATH); -l adds kind and
// size. A file lists as itself.
#ifndef VELFS_TOOLS_LIST_COMMAND_H
#define VELFS_TOOLS_LIST_COMMAND_H

#include <string>

#include "command.h"

namespace velfs::tool {

class ListCommand : public Command {
 public:
  explicit ListCommand(CLI::App& app);
  int Run() override;

 private:
  std::string path_;
  bool long_ = false;
  bool recursive_ = false;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_LIST_COMMAND_H
