// The commands that change one file or one directory:
// - `velfs put SRC DEST`: a host file (or `-`, standard input) stored as one file of a root.
//   DEST may name a directory, which then receives SRC's name. In a database root the file is
//   written inside one transaction and committed only when complete.
// - `velfs get SRC DEST`: a file of a root copied to a host file (or `-`, standard output),
//   through a temporary name, so the target is replaced only by a complete copy.
// - put, get and cp never replace a host file that is a database or a ZIP archive, nor get the
//   root it reads from, without --force: `velfs put a.txt store.db` is most often
//   `velfs put a.txt store.db:` with the ':' forgotten, and would lose the whole store.
// - `velfs cp [-n] SRC DEST` and `velfs mv [-n] SRC DEST`: one file copied or moved. Inside one
//   database root both are the library's own operations (velfsCopyFile, velfsMoveFile) in one
//   transaction. cp between different roots (or inside a directory root) streams the bytes
//   through velfsRead and velfsWrite; mv works only inside one database root. DEST may name a
//   directory, which then receives SRC's name; -n refuses an existing target.
// - `velfs rm PATH...`: deletes files of database roots (velfsDeleteFile), each in a transaction
//   of its own. A path that fails is reported and the others are still removed.
// - `velfs rmdir PATH`: removes a directory of a database root with every file below it, in one
//   transaction. The files are found by walking the tree and deleted one by one with
//   velfsDeleteFile, which compares paths exactly; velfsDeleteDirectory matches with SQL LIKE,
//   which ignores letter case and reads '_' and '%' as wildcards, so it would also remove
//   `Docs/` or `d_cs/` with `docs/`.
#include <memory>
#include <optional>
#include <vector>

#include "commands.h"
#include "file_io.h"
#include "tool_error.h"
#include "walk.h"

namespace velfs::tool {

namespace {

struct TwoPaths {
  std::string source;
  std::string target;
  bool noClobber = false;  // cp and mv
  bool force = false;      // put, get and cp: replace a file that is a root, or the source's root
};

// Refuses to replace the host file `hostPath` when it is a database or a ZIP archive (most often a
// ':' forgotten: `velfs put a.txt store.db`), unless `force`; `meant` is the path that was
// probably meant.
void RefuseReplacingARoot(const std::string& hostPath, const std::string& shown,
                          const std::string& meant, bool force) {
  if (force) return;
  const char* kind = Root::ContainerKindOf(hostPath);
  if (kind == nullptr) return;
  throw ToolError(shown, std::string("is a ") + kind + ", not replaced: did you mean " + meant +
                                "? (--force replaces it)");
}

int Put(const TwoPaths& paths) {
  const bool fromInput = paths.source == "-";
  HostFile input = fromInput ? HostFile::StandardInput() : HostFile::OpenRead(paths.source);
  std::optional<uint64_t> size = input.Size();
  const std::string sourceShown = fromInput ? "standard input" : paths.source;
  // A source of unknown size (a pipe) is read once into a temporary file: a run that waits for
  // another program's lock starts again from its first byte.
  std::optional<HostFile> spool;
  if (!size) {
    spool.emplace(HostFile::Temporary());
    CopyBytes(input, *spool, std::nullopt, sourceShown, nullptr);
    spool->Rewind();
    size = spool->Size();
  }
  HostFile& source = spool ? *spool : input;

  return RetryOnLock([&] {
    source.Rewind();
    const VelPath path = VelPath::Parse(paths.target);
    Root root = Root::Open(path, Root::Access::kWrite);
    root.RequireWritable(path.Inner());
    std::string target = path.Inner();
    if (fromInput) {
      if (target.empty() || target.back() == '/' || root.Lookup(target) == EntryKind::kDirectory) {
        throw ToolError(path.Text(), "is a directory: name the file to write standard input to",
                        ToolError::kUsage);
      }
    } else {
      target = root.TargetIn(target, VelPath::BaseName(paths.source));
    }
    if (!path.IsContainerForm() && root.Kind() == RootKind::kDirectory) {
      RefuseReplacingARoot(root.HostPathOf(target), root.Display(target),
                           root.Display(target) + ":" + VelPath::BaseName(sourceShown),
                           paths.force);
    }
    StoreFileAndCommit(root, target, source, size, sourceShown);
    return 0;
  });
}

int Get(const TwoPaths& paths) {
  const VelPath path = VelPath::Parse(paths.source);
  const Root root = Root::Open(path, Root::Access::kReadOnly);
  root.RequireFile(path, "is a directory (export copies a tree)");
  VelFile source(root, path.Inner(), VelFile::kRead);
  const std::optional<uint64_t> size = source.CopySize();

  if (paths.target == "-") {
    HostFile output = HostFile::StandardOutput();
    CopyBytes(source, output, size, path.Text(), nullptr);
    output.Close();
    return 0;
  }
  std::string target = paths.target;
  if (host::Examine(target).kind == host::Kind::kDirectory) {
    target = VelPath::DirectoryPath(target) + VelPath::BaseName(path.Inner());
  }
  if (!paths.force && root.Is(host::Examine(target).identity)) {
    throw ToolError(target, "is the " + std::string(Root::KindName(root.Kind())) +
                                " being read, not replaced: did you mean the target " +
                                VelPath::BaseName(path.Inner()) + "? (--force replaces it)");
  }
  RefuseReplacingARoot(target, target, "the target " + VelPath::BaseName(path.Inner()),
                       paths.force);
  ReplaceHostFile(target, source, size, path.Text());
  return 0;
}

int CopyOrMove(const TwoPaths& paths, bool move) {
  const VelPath from = VelPath::Parse(paths.source);
  // The source is opened for reading only, and again for changes when the copy or move is the
  // library's own, inside one database root.
  Root sourceRoot = Root::Open(from, move ? Root::Access::kRead : Root::Access::kReadOnly);
  sourceRoot.RequireFile(from, "is a directory (only files are copied and moved)");
  if (move) sourceRoot.RequireDatabase(from.Inner(), "move files");

  const VelPath to = VelPath::Parse(paths.target);
  std::optional<Root> targetRoot(Root::Open(to, Root::Access::kWrite));
  const bool sameRoot = targetRoot->Is(sourceRoot.Identity());
  if (move && !sameRoot) {
    throw ToolError(from.Text(), "mv works inside one database root; use cp, then rm");
  }
  targetRoot->RequireWritable(to.Inner());
  // Inside one database root the library copies and moves on the source root's own handle.
  if (sameRoot && sourceRoot.Kind() == RootKind::kDatabase) {
    targetRoot.reset();
    if (!move) sourceRoot = Root::Open(from, Root::Access::kRead);
  }
  Root& root = targetRoot ? *targetRoot : sourceRoot;

  const std::string target = root.TargetIn(to.Inner(), VelPath::BaseName(from.Inner()));
  const EntryKind existing = root.Lookup(target);
  if (existing == EntryKind::kDirectory) throw ToolError(root.Display(target), "is a directory");
  if (paths.noClobber && existing == EntryKind::kFile) {
    throw ToolError(root.Display(target), "file exists");
  }
  if (!to.IsContainerForm() && root.Kind() == RootKind::kDirectory) {
    RefuseReplacingARoot(root.HostPathOf(target), root.Display(target),
                         root.Display(target) + ":" + VelPath::BaseName(from.Inner()), paths.force);
  }

  if (!targetRoot) {
    root.Begin();
    const char* source = from.Inner().c_str();
    const bool done = move ? velfsMoveFile(root.Handle(), source, target.c_str(), paths.noClobber)
                           : velfsCopyFile(root.Handle(), source, target.c_str(), paths.noClobber);
    if (!done) {
      throw root.WriteFailure(root.Display(target), move ? "move failed" : "copy failed");
    }
    root.Commit();
    return 0;
  }
  const std::optional<uint64_t> size = VelFile::SizeOf(sourceRoot, from.Inner());
  VelFile source(sourceRoot, from.Inner(), VelFile::kRead);
  StoreFileAndCommit(root, target, source, size, from.Text());
  return 0;
}

void Remove(const VelPath& path) {
  Root root = Root::Open(path, Root::Access::kRead);
  const std::string& inner = path.Inner();
  root.RequireDatabase(inner, "delete files");
  root.RequireFile(path, "is a directory (rmdir removes a directory)");
  root.Begin();
  if (!velfsDeleteFile(root.Handle(), inner.c_str())) {
    throw root.WriteFailure(path.Text(), "cannot delete");
  }
  root.Commit();
}

int RemoveDirectory(const std::string& text) {
  const VelPath path = VelPath::Parse(text);
  Root root = Root::Open(path, Root::Access::kRead);
  const std::string& inner = path.Inner();
  root.RequireDatabase(inner, "remove directories");
  if (inner.empty() || inner == "/") {
    throw ToolError(
        path.HostPath(),
        "cannot remove the root directory: remove its files with rm, or delete the database");
  }
  root.RequireDirectory(path, "no such directory", "not a directory (rm deletes a file)");
  const std::string directory = VelPath::DirectoryPath(inner);
  std::vector<std::string> files;
  Problems problems;
  WalkTree(root, directory, problems, [&files, &directory](const WalkEntry& entry) {
    if (!entry.isDirectory) files.push_back(directory + entry.path);
  });
  if (problems.Count() != 0) throw ToolError(path.Text(), "not all of it can be listed, nothing removed");
  root.Begin();
  for (const std::string& file : files) {
    if (!velfsDeleteFile(root.Handle(), file.c_str())) {
      throw root.WriteFailure(root.Display(file), "cannot delete, nothing was removed");
    }
  }
  root.Commit();
  return 0;
}

CLI::App& AddForce(CLI::App& command, TwoPaths& paths) {
  command.add_flag("--force", paths.force,
                   "Replace a target that is a database or ZIP archive, or the root read from");
  return command;
}

void AddTwoPaths(CLI::App& command, TwoPaths& paths, const char* sourceHelp,
                 const char* targetHelp) {
  command.add_option("SRC", paths.source, sourceHelp)->required();
  command.add_option("DEST", paths.target, targetHelp)->required();
}

}  // namespace

void AddChangeCommands(CLI::App& app, Commands& commands) {
  auto put = std::make_shared<TwoPaths>();
  AddTwoPaths(AddForce(AddCommand(app, commands, "put",
                         "Copy a host file (or - for standard input) into a root",
                         "velfs put logo.png store.db:images/", [put] { return Put(*put); }), *put),
              *put, "Host file, or - for standard input",
              "Target file or directory (store.db:docs/a.txt, store.db:docs/)");

  auto get = std::make_shared<TwoPaths>();
  AddTwoPaths(AddForce(AddCommand(app, commands, "get",
                         "Copy a file out of a root to a host file (or - for standard output)",
                         "velfs get store.db:images/logo.png logo.png", [get] { return Get(*get); }), *get),
              *get, "File in a root (store.db:docs/a.txt)",
              "Host file or directory, or - for standard output");

  for (const bool move : {false, true}) {
    auto copy = std::make_shared<TwoPaths>();
    CLI::App& command = AddCommand(
        app, commands, move ? "mv" : "cp",
        move ? "Move a file inside one database root" : "Copy a file inside a root or between roots",
        move ? "velfs mv -n store.db:docs/a.txt store.db:archive/"
             : "velfs cp pack.zip:docs/a.txt store.db:docs/",
        [copy, move] { return CopyOrMove(*copy, move); });
    command.add_flag("-n,--no-clobber", copy->noClobber, "Fail if the target file exists");
    if (!move) AddForce(command, *copy);
    AddTwoPaths(command, *copy, "Source file (store.db:docs/a.txt)", "Target file or directory");
  }

  auto remove = std::make_shared<std::vector<std::string>>();
  AddCommand(app, commands, "rm", "Delete files of a database root",
             "velfs rm store.db:docs/old.txt", [remove] { return ForEachPath(*remove, Remove); })
      .add_option("PATH", *remove, "Files in a database root (store.db:docs/a.txt)")
      ->required();

  auto directory = std::make_shared<std::string>();
  AddCommand(app, commands, "rmdir", "Remove a directory and everything below it from a database root",
             "velfs rmdir store.db:docs/drafts/",
             [directory] { return RemoveDirectory(*directory); })
      .add_option("PATH", *directory, "Directory in a database root (store.db:docs/)")
      ->required();
}

}  // namespace velfs::tool
