// CopyCommand: `velfs cp [-n] SRC DEST` and `velfs mv [-n] SRC DEST` — one file copied or moved.
// Inside one database root both are the library's own operations (velfsCopyFile, velfsMoveFile)
// in one transaction. cp between different roots (or inside a directory root) streams the bytes
// through velfsRead and velfsWrite; mv works only inside one database root. DEST may name a
// directory, which then receives SRC's name; -n refuses an existing target.
#ifndef VELFS_TOOLS_COPY_COMMAND_H
#define VELFS_TOOLS_COPY_COMMAND_H

#include <string>

#include "command.h"

namespace velfs::tool {

class CopyCommand : public Command {
 public:
  // `move` makes the mv command, otherwise cp.
  CopyCommand(CLI::App& app, bool move);
  int Run() override;

 private:
  bool move_;
  bool noClobber_ = false;
  std::string source_;
  std::string target_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_COPY_COMMAND_H
