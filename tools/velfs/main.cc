// The velfs command-line tool: build, inspect and unpack velFS roots through the exported C API
// of velfs.h (see velfs.1). This file sets up CLI11 with every command, runs the one chosen and
// turns the outcome into the exit status: 0 success, 1 failure (a ToolError, printed as
// "velfs: SUBJECT: CAUSE"), 2 usage error (printed by CLI11, or a ToolError of status 2).
#include <cstdio>
#include <new>
#include <utility>

#include "commands.h"
#include "host.h"
#include "tool_error.h"

namespace velfs::tool {

CLI::App& AddCommand(CLI::App& app, Commands& commands, const std::string& name,
                     const std::string& description, const std::string& example,
                     std::function<int()> run) {
  CLI::App* subcommand = app.add_subcommand(name, description);
  subcommand->footer("Example: " + example);
  commands.push_back({subcommand, std::move(run)});
  return *subcommand;
}

int RetryOnLock(const std::function<int()>& run) {
  for (int attempt = 1;; ++attempt) {
    try {
      return run();
    } catch (const ToolError& error) {
      if (!error.Locked() || !WaitForLock(attempt)) throw;
    }
  }
}

int ForEachPath(const std::vector<std::string>& paths,
                const std::function<void(const VelPath&)>& each) {
  int status = 0;
  for (const std::string& text : paths) {
    try {
      RetryOnLock([&] {
        each(VelPath::Parse(text));
        return 0;
      });
    } catch (const ToolError& error) {
      if (error.Status() != ToolError::kFailure) throw;
      error.Print();
      status = ToolError::kFailure;
    }
  }
  return status;
}

namespace {

// Runs the command chosen. A command that fails on another program's lock has changed nothing
// (its transaction is rolled back when its root closes) and is run again until --wait runs out.
int RunChosen(const Commands& commands) {
  try {
    for (const Command& command : commands) {
      if (command.subcommand->parsed()) return RetryOnLock(command.run);
    }
  } catch (const ToolError& error) {
    error.Print();
    return error.Status();
  } catch (const std::bad_alloc&) {
    ToolError("", "out of memory").Print();
  }
  return ToolError::kFailure;
}

int Run(int argc, char** argv) {
  CLI::App app(
      "velfs - build, inspect and unpack velFS storage roots: host directories, ZIP archives "
      "(read-only) and SQLite databases",
      "velfs");
  app.set_version_flag("--version", "velfs " VELFS_TOOL_VERSION);
  app.require_subcommand(1);
  // Accepted before or after the command word.
  app.fallthrough();
  double waitSeconds = 5;
  app.add_option("--wait", waitSeconds,
                 "Seconds to wait for another program's lock on a database before failing")
      ->check(CLI::Range(0.0, 86400.0).description(""))
      ->type_name("SECONDS")
      ->capture_default_str();
  app.footer(
      "Paths: a directory (assets/), a root and a path inside it (store.db:docs/a.txt, "
      "pack.zip:docs/), or a root alone (store.db:, pack.zip:).\n"
      "Exit status: 0 success, 1 failure, 2 usage error. See velfs(1).");
  Commands commands;
  AddInspectCommands(app, commands);
  AddChangeCommands(app, commands);
  AddTreeCopyCommands(app, commands);

  try {
    app.parse(argc, argv);
  } catch (const CLI::RequiredError& error) {
    // CLI11 reports an unknown command word as a missing command; name the word instead.
    if (app.get_subcommands().empty() && argc > 1 && argv[1][0] != '-') {
      ToolError(argv[1], "unknown command (velfs --help lists the commands)").Print();
      return ToolError::kUsage;
    }
    app.exit(error);
    return ToolError::kUsage;
  } catch (const CLI::ParseError& error) {
    // --help and --version end parsing with status 0; anything else is a usage error.
    return app.exit(error) == 0 ? 0 : ToolError::kUsage;
  }
  SetLockWait(std::chrono::milliseconds(static_cast<long long>(waitSeconds * 1000)));
  const int status = RunChosen(commands);
  // What the commands printed is written out here; a command that failed has reported already.
  if ((std::fflush(stdout) != 0 || std::ferror(stdout)) && status == 0) {
    ToolError("standard output", "write error").Print();
    return ToolError::kFailure;
  }
  return status;
}

}  // namespace
}  // namespace velfs::tool

int main(int argc, char** argv) {
  velfs::tool::host::UseBinaryStandardStreams();
  return velfs::tool::Run(argc, argv);
}
