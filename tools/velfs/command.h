// Command: one subcommand of velfs. Each command adds its CLI11 subcommand, options and help text
// in its constructor and does its work in Run, which answers the exit status (0 success, 1
// failure) or throws ToolError.
#ifndef VELFS_TOOLS_COMMAND_H
#define VELFS_TOOLS_COMMAND_H

#include <CLI/CLI.hpp>

namespace velfs::tool {

class Command {
 public:
  Command(const Command&) = delete;
  Command& operator=(const Command&) = delete;
  virtual ~Command() = default;

  virtual int Run() = 0;
  bool Chosen() const { return subcommand_->parsed(); }

 protected:
  // `example` is a command line shown at the end of the command's --help.
  Command(CLI::App& app, const std::string& name, const std::string& description,
          const std::string& example)
      : subcommand_(app.add_subcommand(name, description)) {
    subcommand_->footer("Example: " + example);
  }

  CLI::App& Subcommand() { return *subcommand_; }

 private:
  CLI::App* subcommand_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_COMMAND_H
