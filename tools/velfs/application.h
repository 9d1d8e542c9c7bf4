// Application: the velfs command line. It builds the CLI11 parser with every command, runs the
// chosen one and turns the outcome into the exit status: 0 success, 1 failure (a ToolError,
// printed as "velfs: SUBJECT: CAUSE"), 2 usage error (printed by CLI11).
#ifndef VELFS_TOOLS_APPLICATION_H
#define VELFS_TOOLS_APPLICATION_H

#include <CLI/CLI.hpp>
#include <memory>
#include <vector>

#include "command.h"

namespace velfs::tool {

class Application {
 public:
  Application();
  int Run(int argc, char** argv);

 private:
  int RunChosen();

  CLI::App app_;
  std::vector<std::unique_ptr<Command>> commands_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_APPLICATION_H
