// StatCommand: `velfs stat PATH` — what PATH is (file or directory), its size or number of
// entries, and which root and back-end serve it, one "key: value" line each.
#ifndef VELFS_TOOLS_STAT_COMMAND_H
#define VELFS_TOOLS_STAT_COMMAND_H

#include <string>

#include "command.h"

namespace velfs::tool {

class StatCommand : public Command {
 public:
  explicit StatCommand(CLI::App& app);
  int Run() override;

 private:
  std::string path_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_STAT_COMMAND_H
