// RemoveCommand: Root::Lookup, then velfsDeleteFile between Root::Begin and Root::Commit.
#include "remove_command.h"

#include "root.h"
#include "tool_error.h"
#include "vel_path.h"

namespace velfs::tool {

RemoveCommand::RemoveCommand(CLI::App& app)
    : Command(app, "rm", "Delete files of a database root", "velfs rm store.db:docs/old.txt") {
  Subcommand()
      .add_option("PATH", paths_, "Files in a database root (store.db:docs/a.txt)")
      ->required();
}

int RemoveCommand::Run() {
  int status = 0;
  for (const std::string& text : paths_) {
    try {
      Remove(text);
    } catch (const ToolError& error) {
      if (error.Status() != ToolError::kFailure) throw;
      error.Print();
      status = 1;
    }
  }
  return status;
}

void RemoveCommand::Remove(const std::string& text) {
  const VelPath path = VelPath::Parse(text);
  Root root = Root::Open(path, Root::Access::kRead);
  const std::string& inner = path.Inner();
  root.RequireDatabase(inner, "delete files");
  root.RequireFile(path, "is a directory (rmdir removes a directory)");
  root.Begin();
  if (!velfsDeleteFile(root.Handle(), inner.c_str())) {
    throw ToolError(path.Text(), "cannot delete: " + root.WriteFailureCause());
  }
  root.Commit();
}

}  // namespace velfs::tool
