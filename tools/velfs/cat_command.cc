// CatCommand: each file through Transfer into standard output.
#include "cat_command.h"

#include "host_file.h"
#include "root.h"
#include "tool_error.h"
#include "transfer.h"
#include "vel_file.h"
#include "vel_path.h"

namespace velfs::tool {

CatCommand::CatCommand(CLI::App& app)
    : Command(app, "cat", "Write the bytes of files to standard output",
              "velfs cat store.db:docs/readme.txt") {
  Subcommand().add_option("PATH", paths_, "Files (store.db:docs/a.txt, assets/a.txt)")->required();
}

int CatCommand::Run() {
  HostFile output = HostFile::StandardOutput();
  int status = 0;
  for (const std::string& text : paths_) {
    try {
      const VelPath path = VelPath::Parse(text);
      const Root root = Root::Open(path, Root::Access::kRead);
      root.RequireFile(path, "is a directory");
      VelFile file(root, path.Inner(), VelFile::kRead);
      Transfer::Copy(file, output, file.CopySize(), path.Text(), nullptr);
    } catch (const ToolError& error) {
      if (error.Status() != ToolError::kFailure) throw;
      error.Print();
      status = 1;
    }
  }
  output.Close();
  return status;
}

}  // namespace velfs::tool
