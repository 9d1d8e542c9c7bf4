// PutCommand: `velfs put SRC DEST` — a host file (or `-`, standard input) stored as one file of a
// root. DEST may name a directory, which then receives SRC's name. In a database root the file is
// written inside one transaction and committed only when complete.
#ifndef VELFS_TOOLS_PUT_COMMAND_H
#define VELFS_TOOLS_PUT_COMMAND_H

#include <string>

#include "command.h"

namespace velfs::tool {

class PutCommand : public Command {
 public:
  explicit PutCommand(CLI::App& app);
  int Run() override;

 private:
  std::string source_;
  std::string target_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_PUT_COMMAND_H
