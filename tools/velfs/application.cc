// Application: CLI11 set-up, dispatch and exit statuses.
#include "application.h"

#include <cstdio>
#include <new>

#include "cat_command.h"
#include "copy_command.h"
#include "export_command.h"
#include "get_command.h"
#include "import_command.h"
#include "list_command.h"
#include "put_command.h"
#include "remove_command.h"
#include "remove_directory_command.h"
#include "stat_command.h"
#include "tool_error.h"
#include "tree_command.h"

namespace velfs::tool {

Application::Application()
    : app_(
          "velfs - build, inspect and unpack velFS storage roots: host directories, ZIP "
          "archives (read-only) and SQLite databases",
          "velfs") {
  app_.set_version_flag("--version", "velfs " VELFS_TOOL_VERSION);
  app_.require_subcommand(1);
  app_.footer(
      "Paths: a directory (assets/), a root and a path inside it (store.db:docs/a.txt, "
      "pack.zip:docs/), or a root alone (store.db:, pack.zip:).\n"
      "Exit status: 0 success, 1 failure, 2 usage error. See velfs(1).");
  commands_.push_back(std::make_unique<ListCommand>(app_));
  commands_.push_back(std::make_unique<TreeCommand>(app_));
  commands_.push_back(std::make_unique<CatCommand>(app_));
  commands_.push_back(std::make_unique<StatCommand>(app_));
  commands_.push_back(std::make_unique<PutCommand>(app_));
  commands_.push_back(std::make_unique<GetCommand>(app_));
  commands_.push_back(std::make_unique<CopyCommand>(app_, false));
  commands_.push_back(std::make_unique<CopyCommand>(app_, true));
  commands_.push_back(std::make_unique<RemoveCommand>(app_));
  commands_.push_back(std::make_unique<RemoveDirectoryCommand>(app_));
  commands_.push_back(std::make_unique<ImportCommand>(app_));
  commands_.push_back(std::make_unique<ExportCommand>(app_));
}

int Application::Run(int argc, char** argv) {
  try {
    app_.parse(argc, argv);
  } catch (const CLI::RequiredError& error) {
    // CLI11 reports an unknown command word as a missing command; name the word instead.
    if (app_.get_subcommands().empty() && argc > 1 && argv[1][0] != '-') {
      ToolError(argv[1], "unknown command (velfs --help lists the commands)").Print();
      return ToolError::kUsage;
    }
    app_.exit(error);
    return ToolError::kUsage;
  } catch (const CLI::ParseError& error) {
    // --help and --version end parsing with status 0; anything else is a usage error.
    return app_.exit(error) == 0 ? 0 : ToolError::kUsage;
  }
  const int status = RunChosen();
  // What the commands printed is written out here; a command that failed has reported already.
  if ((std::fflush(stdout) != 0 || std::ferror(stdout)) && status == 0) {
    ToolError("standard output", "write error").Print();
    return ToolError::kFailure;
  }
  return status;
}

int Application::RunChosen() {
  try {
    for (const std::unique_ptr<Command>& command : commands_) {
      if (command->Chosen()) return command->Run();
    }
  } catch (const ToolError& error) {
    error.Print();
    return error.Status();
  } catch (const std::bad_alloc&) {
    ToolError("", "out of memory").Print();
  }
  return ToolError::kFailure;
}

}  // namespace velfs::tool
