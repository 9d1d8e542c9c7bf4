// StatCommand: Root::Lookup, VelFile::SizeOf or Listing, and Root::Kind.
#include "stat_command.h"

#include <cstdio>

#include "listing.h"
#include "root.h"
#include "tool_error.h"
#include "vel_file.h"
#include "vel_path.h"

namespace velfs::tool {

StatCommand::StatCommand(CLI::App& app)
    : Command(app, "stat", "Show kind, size and the back-end that serves a path",
              "velfs stat store.db:images/logo.png") {
  Subcommand().add_option("PATH", path_, "A file, a directory or a root")->required();
}

int StatCommand::Run() {
  const VelPath path = VelPath::Parse(path_);
  const Root root = Root::Open(path, Root::Access::kRead);
  const std::string& inner = path.Inner();
  const EntryKind kind = root.Lookup(inner);
  if (kind == EntryKind::kMissing) throw ToolError(path.Text(), "no such file or directory");
  std::printf("path: %s\n", path.Text().c_str());
  switch (kind) {
    case EntryKind::kMissing:
      break;
    case EntryKind::kFile: {
      const std::optional<uint64_t> size = VelFile::SizeOf(root, inner);
      std::printf("kind: file\nsize: %s\n", size ? std::to_string(*size).c_str() : "unknown");
      break;
    }
    case EntryKind::kDirectory:
      std::printf("kind: directory\nentries: %zu\n", Listing(root, inner).Entries().size());
      break;
  }
  std::printf("root: %s\nback-end: %s\n", path.RootDisplay().c_str(), Root::KindName(root.Kind()));
  return 0;
}

}  // namespace velfs::tool
