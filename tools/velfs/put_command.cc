// PutCommand: HostFile into RootWriter, between Root::Begin and Root::Commit for a database.
#include "put_command.h"

#include "host_file.h"
#include "root.h"
#include "root_writer.h"
#include "tool_error.h"
#include "vel_path.h"

namespace velfs::tool {

PutCommand::PutCommand(CLI::App& app)
    : Command(app, "put", "Copy a host file (or - for standard input) into a root",
              "velfs put logo.png store.db:images/") {
  Subcommand().add_option("SRC", source_, "Host file, or - for standard input")->required();
  Subcommand()
      .add_option("DEST", target_, "Target file or directory (store.db:docs/a.txt, store.db:docs/)")
      ->required();
}

int PutCommand::Run() {
  const bool fromInput = source_ == "-";
  HostFile source = fromInput ? HostFile::StandardInput() : HostFile::OpenRead(source_);
  const std::optional<uint64_t> size = source.Size();
  const std::string sourceShown = fromInput ? "standard input" : source_;

  const VelPath path = VelPath::Parse(target_);
  Root root = Root::Open(path, Root::Access::kWrite);
  root.RequireWritable(path.Inner());
  std::string target = path.Inner();
  if (fromInput) {
    if (target.empty() || target.back() == '/' || root.Lookup(target) == EntryKind::kDirectory) {
      throw ToolError(path.Text(), "is a directory: name the file to write standard input to",
                      ToolError::kUsage);
    }
  } else {
    target = root.TargetIn(target, VelPath::BaseName(source_));
  }
  RootWriter::StoreAndCommit(root, target, source, size, sourceShown);
  return 0;
}

}  // namespace velfs::tool
