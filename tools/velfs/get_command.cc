// GetCommand: VelFile through Transfer into a HostFile.
#include "get_command.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>

#include "host_file.h"
#include "root.h"
#include "tool_error.h"
#include "transfer.h"
#include "vel_file.h"
#include "vel_path.h"

namespace velfs::tool {

GetCommand::GetCommand(CLI::App& app)
    : Command(app, "get", "Copy a file out of a root to a host file (or - for standard output)",
              "velfs get store.db:images/logo.png logo.png") {
  Subcommand().add_option("SRC", source_, "File in a root (store.db:docs/a.txt)")->required();
  Subcommand()
      .add_option("DEST", target_, "Host file or directory, or - for standard output")
      ->required();
}

int GetCommand::Run() {
  const VelPath path = VelPath::Parse(source_);
  const Root root = Root::Open(path, Root::Access::kRead);
  root.RequireFile(path, "is a directory (export copies a tree)");
  VelFile source(root, path.Inner(), VelFile::kRead);
  const std::optional<uint64_t> size = source.CopySize();

  if (target_ == "-") {
    HostFile output = HostFile::StandardOutput();
    Transfer::Copy(source, output, size, path.Text(), nullptr);
    output.Close();
    return 0;
  }
  std::string target = target_;
  struct stat info {};
  if (::stat(target.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    if (target.back() != '/') target += '/';
    target += VelPath::BaseName(path.Inner());
  }
  const std::string temporary = target + ".velfs-" + std::to_string(::getpid());
  std::optional<HostFile> output;
  try {
    output.emplace(HostFile::OpenWrite(temporary, true));
  } catch (const ToolError& error) {
    throw ToolError(target, error.Cause());
  }
  try {
    Transfer::Copy(source, *output, size, path.Text(), nullptr);
    output->Close();
    if (std::rename(temporary.c_str(), target.c_str()) != 0) {
      throw ToolError(target, std::strerror(errno));
    }
  } catch (...) {
    output.reset();
    std::remove(temporary.c_str());
    throw;
  }
  return 0;
}

}  // namespace velfs::tool
