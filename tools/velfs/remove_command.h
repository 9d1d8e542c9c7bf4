// RemoveCommand: `velfs rm PATH...` — deletes files of database roots (velfsDeleteFile), each in
// a transaction of its own. A path that fails is reported and the others are still removed; the
// status is then 1.
#ifndef VELFS_TOOLS_REMOVE_COMMAND_H
#define VELFS_TOOLS_REMOVE_COMMAND_H

#include <string>
#include <vector>

#include "command.h"

namespace velfs::tool {

class RemoveCommand : public Command {
 public:
  explicit RemoveCommand(CLI::App& app);
  int Run() override;

 private:
  static void Remove(const std::string& text);

  std::vector<std::string> paths_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_REMOVE_COMMAND_H
