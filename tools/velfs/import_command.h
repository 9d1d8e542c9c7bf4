// ImportCommand: `velfs import [-v] DIR DEST` — a whole host tree copied into a database root
// (or a directory root), below DEST's inner path. Into a database root everything is written in
// one transaction (velfsBeginTrans ... velfsCommitTrans), so a failure or an interruption leaves
// the database as it was. A progress bar on a terminal, a one-line summary always; -v prints
// each stored file.
#ifndef VELFS_TOOLS_IMPORT_COMMAND_H
#define VELFS_TOOLS_IMPORT_COMMAND_H

#include <string>

#include "command.h"

namespace velfs::tool {

class ImportCommand : public Command {
 public:
  explicit ImportCommand(CLI::App& app);
  int Run() override;

 private:
  std::string source_;
  std::string target_;
  bool verbose_ = false;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_IMPORT_COMMAND_H
