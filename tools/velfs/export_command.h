// ExportCommand: `velfs export [-v] SRC DIR` — the tree below a directory of a root (a database,
// a ZIP archive or a directory) copied to a host directory, which is made when missing. Existing
// host files are never overwritten: every target is checked before the first byte is written.
// A progress bar on a terminal, a one-line summary always; -v prints each written file.
#ifndef VELFS_TOOLS_EXPORT_COMMAND_H
#define VELFS_TOOLS_EXPORT_COMMAND_H

#include <string>

#include "command.h"

namespace velfs::tool {

class ExportCommand : public Command {
 public:
  explicit ExportCommand(CLI::App& app);
  int Run() override;

 private:
  std::string source_;
  std::string target_;
  bool verbose_ = false;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_EXPORT_COMMAND_H
