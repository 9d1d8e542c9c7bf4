// CatCommand: `velfs cat PATH...` — the bytes of each file, in order, on standard output. A path
// that fails is reported and the others are still written; the status is then 1.
#ifndef VELFS_TOOLS_CAT_COMMAND_H
#define VELFS_TOOLS_CAT_COMMAND_H

#include <string>
#include <vector>

#include "command.h"

namespace velfs::tool {

class CatCommand : public Command {
 public:
  explicit CatCommand(CLI::App& app);
  int Run() override;

 private:
  std::vector<std::string> paths_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_CAT_COMMAND_H
