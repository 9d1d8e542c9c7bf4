// GetCommand: `velfs get SRC DEST` — one file of a root copied to a host file (or `-`, standard
// output). DEST may be a host directory, which then receives the file's name. The host file is
// written under a temporary name beside it and renamed when complete.
#ifndef VELFS_TOOLS_GET_COMMAND_H
#define VELFS_TOOLS_GET_COMMAND_H

#include <string>

#include "command.h"

namespace velfs::tool {

class GetCommand : public Command {
 public:
  explicit GetCommand(CLI::App& app);
  int Run() override;

 private:
  std::string source_;
  std::string target_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_GET_COMMAND_H
