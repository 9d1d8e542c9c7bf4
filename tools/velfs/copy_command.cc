// CopyCommand: the library's copy and move inside one database root, Transfer across roots.
#include "copy_command.h"

#include <optional>

#include "root.h"
#include "root_writer.h"
#include "tool_error.h"
#include "vel_file.h"
#include "vel_path.h"

namespace velfs::tool {

CopyCommand::CopyCommand(CLI::App& app, bool move)
    : Command(app, move ? "mv" : "cp",
              move ? "Move a file inside one database root"
                   : "Copy a file inside a root or between roots",
              move ? "velfs mv -n store.db:docs/a.txt store.db:archive/"
                   : "velfs cp pack.zip:docs/a.txt store.db:docs/"),
      move_(move) {
  Subcommand().add_flag("-n,--no-clobber", noClobber_, "Fail if the target file exists");
  Subcommand().add_option("SRC", source_, "Source file (store.db:docs/a.txt)")->required();
  Subcommand().add_option("DEST", target_, "Target file or directory")->required();
}

int CopyCommand::Run() {
  const VelPath from = VelPath::Parse(source_);
  Root sourceRoot = Root::Open(from, Root::Access::kRead);
  sourceRoot.RequireFile(from, "is a directory (only files are copied and moved)");
  if (move_) sourceRoot.RequireDatabase(from.Inner(), "move files");

  const VelPath to = VelPath::Parse(target_);
  std::optional<Root> targetRoot(Root::Open(to, Root::Access::kWrite));
  const bool sameRoot = targetRoot->SameStorageAs(sourceRoot);
  if (move_ && !sameRoot) {
    throw ToolError(from.Text(), "mv works inside one database root; use cp, then rm");
  }
  targetRoot->RequireWritable(to.Inner());
  if (sameRoot && sourceRoot.Kind() == RootKind::kDatabase) targetRoot.reset();
  Root& root = targetRoot ? *targetRoot : sourceRoot;

  const std::string target = root.TargetIn(to.Inner(), VelPath::BaseName(from.Inner()));
  const EntryKind existing = root.Lookup(target);
  if (existing == EntryKind::kDirectory) throw ToolError(root.Display(target), "is a directory");
  if (noClobber_ && existing == EntryKind::kFile) {
    throw ToolError(root.Display(target), "file exists");
  }

  if (!targetRoot) {
    // The library's copy or move, inside an explicit transaction of its own.
    root.Begin();
    const bool done =
        move_ ? velfsMoveFile(root.Handle(), from.Inner().c_str(), target.c_str(), noClobber_)
              : velfsCopyFile(root.Handle(), from.Inner().c_str(), target.c_str(), noClobber_);
    if (!done) {
      throw ToolError(root.Display(target), std::string(move_ ? "move" : "copy") +
                                                " failed: " + root.WriteFailureCause());
    }
    root.Commit();
    return 0;
  }
  const std::optional<uint64_t> size = VelFile::SizeOf(sourceRoot, from.Inner());
  VelFile source(sourceRoot, from.Inner(), VelFile::kRead);
  RootWriter::StoreAndCommit(root, target, source, size, from.Text());
  return 0;
}

}  // namespace velfs::tool
