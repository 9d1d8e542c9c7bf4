// The commands of velfs in three groups: those that inspect a root (ls, tree, cat, stat), those
// that change one file or directory (put, get, cp, mv, rm, rmdir), and those that copy whole
// trees (import, export). Each group adds its CLI11 subcommands, options and help text to the
// application; main.cc runs the one chosen.
#ifndef VELFS_TOOLS_COMMANDS_H
#define VELFS_TOOLS_COMMANDS_H

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "root.h"

namespace velfs::tool {

// One subcommand and its work, which answers the exit status (0 success, 1 failure) or throws
// ToolError.
struct Command {
  CLI::App* subcommand;
  std::function<int()> run;
};
using Commands = std::vector<Command>;

// Adds subcommand `name` to `app` and `run` to `commands`; `example` is a command line shown at
// the end of the subcommand's --help. Answers the subcommand, for its options.
CLI::App& AddCommand(CLI::App& app, Commands& commands, const std::string& name,
                     const std::string& description, const std::string& example,
                     std::function<int()> run);

void AddInspectCommands(CLI::App& app, Commands& commands);
void AddChangeCommands(CLI::App& app, Commands& commands);
void AddTreeCopyCommands(CLI::App& app, Commands& commands);

// Runs `run` and answers its status; while it fails on another program's lock (a ToolError
// marked Locked, after which it has changed nothing) and --wait has time left, runs it again.
int RetryOnLock(const std::function<int()>& run);

// Runs `each` on every path in turn. A failure (ToolError of status 1) is printed and the next
// path is still done; the answer is then 1, else 0. A path that fails on another program's lock
// is tried again within --wait (SetLockWait). A usage error ends the command.
int ForEachPath(const std::vector<std::string>& paths,
                const std::function<void(const VelPath&)>& each);

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_COMMANDS_H
