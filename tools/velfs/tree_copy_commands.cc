// The commands that copy whole trees, with a progress bar on a terminal and a one-line summary:
// - `velfs import [-v] DIR DEST`: a host tree copied into a database root (or a directory root),
//   below DEST's inner path. Into a database root everything is written in one transaction
//   (velfsBeginTrans ... velfsCommitTrans), so a failure or an interruption leaves the database
//   as it was; directories of a directory root are made with velFSCreateDirectory. -v prints
//   each stored file.
// - `velfs export [-v] [--force] SRC DIR`: the tree below a directory of a root (a database, a
//   ZIP archive or a directory) copied to a host directory, which is made when missing. Every
//   target is checked before the first byte is written: an existing host file is refused unless
//   --force, and the sizes the files declare must fit in the target's free space. Each file is
//   written under a temporary name beside its own and renamed when complete, so an interrupted
//   export leaves no partial file under a final name, and a rerun with --force completes it.
//   What cannot be exported exactly (a name with '\', '.', '..' or an empty part, a file and a
//   directory of the same name, a file that cannot be read, a database row that no listing
//   reaches) is reported by name, the rest is
//   exported, and the status is 1. -v prints each written file.
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "commands.h"
#include "database_diagnosis.h"
#include "file_io.h"
#include "progress.h"
#include "tool_error.h"
#include "walk.h"

namespace velfs::tool {

namespace {

struct TreeCopyOptions {
  std::string source;
  std::string target;
  bool verbose = false;
  bool force = false;  // export: replace existing files of the target
};

// Every level of a directory root's path `directory` (ending in '/'), made one by one.
void MakeDirectories(const Root& root, const std::string& directory) {
  for (std::size_t slash = directory.find('/'); slash != std::string::npos;
       slash = directory.find('/', slash + 1)) {
    velFSCreateDirectory(root.HostPathOf(directory.substr(0, slash)).c_str());
  }
}

// A name that would leave the target directory when joined to it.
bool LeavesTheTarget(const std::string& path) {
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = path.find('/', start);
    const std::string part = path.substr(start, end - start);
    if (part.empty() || part == "." || part == "..") return true;
    if (end == std::string::npos) return false;
    start = end + 1;
  }
}

void PrintDone(bool verbose, const std::string& shown) {
  if (!verbose) return;
  std::printf("%s\n", shown.c_str());
  std::fflush(stdout);
}

int Import(const TreeCopyOptions& options) {
  const host::Info info = host::Examine(options.source);
  if (info.kind == host::Kind::kMissing) throw ToolError(options.source, info.error.text);
  if (info.kind != host::Kind::kDirectory) {
    throw ToolError(options.source, "not a directory (put copies one file)");
  }

  const VelPath to = VelPath::Parse(options.target);
  Root root = Root::Open(to, Root::Access::kWrite);
  root.RequireWritable(to.Inner());
  if (root.Lookup(to.Inner()) == EntryKind::kFile) throw ToolError(to.Text(), "not a directory");
  const std::string prefix = VelPath::DirectoryPath(to.Inner());

  const HostTree tree(options.source,
                      [&root](const host::Identity& identity) { return root.Is(identity); });
  const std::string hostDirectory = VelPath::DirectoryPath(options.source);
  const bool database = root.Kind() == RootKind::kDatabase;
  if (database) {
    for (const HostTree::Entry& entry : tree.Entries()) {
      if (!entry.isDirectory) CheckDatabaseSize(hostDirectory + entry.path, entry.size);
    }
    root.Begin();
  } else {
    MakeDirectories(root, prefix);
  }

  Progress progress(tree.Files(), tree.Bytes(), Progress::Wanted());
  for (const HostTree::Entry& entry : tree.Entries()) {
    const std::string target = prefix + entry.path;
    if (entry.isDirectory) {
      if (!database) MakeDirectories(root, target + '/');
      continue;
    }
    HostFile source = HostFile::OpenRead(hostDirectory + entry.path);
    StoreFile(root, target, source, entry.size, hostDirectory + entry.path, &progress);
    progress.FinishFile();
    PrintDone(options.verbose, root.Display(target));
  }
  if (database) root.Commit();
  progress.Done();
  std::printf("imported %" PRIu64 " files (%" PRIu64 " bytes) from %s into %s\n", progress.Files(),
              progress.Bytes(), options.source.c_str(), to.Text().c_str());
  return 0;
}

// Why an entry of a root cannot be exported exactly under its own name, or null when it can.
const char* UnexportableName(const std::string& path) {
  if (path.find('\\') != std::string::npos) {
    return "the name contains '\\', which velfs reads as '/': not exported";
  }
  if (LeavesTheTarget(path)) return "unsafe name ('.', '..' or an empty part): not exported";
  return nullptr;
}

// The nearest existing entry at or above host path `path`.
std::string ExistingAncestor(std::string path) {
  while (host::Examine(path).kind == host::Kind::kMissing) {
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    path.resize(slash == 0 ? 1 : slash);
  }
  return path;
}

int Export(const TreeCopyOptions& options) {
  const VelPath from = VelPath::Parse(options.source);
  const Root root = Root::Open(from, Root::Access::kReadOnly);
  root.RequireDirectory(from, "no such directory", "not a directory (get copies one file)");
  const host::Kind targetKind = host::Examine(options.target).kind;
  if (targetKind != host::Kind::kMissing && targetKind != host::Kind::kDirectory) {
    throw ToolError(options.target, "not a directory");
  }
  const std::string directory = VelPath::DirectoryPath(from.Inner());
  const std::string hostDirectory = VelPath::DirectoryPath(options.target);
  // A database has no directories of its own: they are made for the files below them, which
  // also leaves out what its listing finds with SQL LIKE that holds no file.
  const bool database = root.Kind() == RootKind::kDatabase;

  // Every entry is checked, and every file's size taken, before anything is written.
  struct Item {
    std::string inner;  // path inside the root
    std::string hostPath;
    bool isDirectory;
    std::optional<uint64_t> size;
  };
  std::vector<Item> items;
  std::set<std::string> seen;
  std::string skipBelow = "\n";  // the entries below a directory not exported
  Problems problems;
  uint64_t files = 0;
  WalkTree(root, directory, problems, [&](const WalkEntry& entry) {
    if (entry.path.compare(0, skipBelow.size(), skipBelow) == 0) return;
    const std::string inner = directory + entry.path;
    const std::string shown = root.Display(inner);
    if (entry.link) {
      Problems::Warn(shown, "skipped: symbolic link to a directory, not followed");
      return;
    }
    if (const char* why = UnexportableName(entry.path)) {
      problems.Report(shown, why);
      if (entry.isDirectory) skipBelow = entry.path + '/';
      return;
    }
    if (!seen.insert(entry.path).second) {
      problems.Report(shown, entry.isDirectory ? "a file of the same name is exported: not exported"
                                               : "a directory of the same name is exported, or the "
                                                 "name is listed twice: not exported");
      if (entry.isDirectory) skipBelow = entry.path + '/';
      return;
    }
    Item item{inner, hostDirectory + entry.path, entry.isDirectory, std::nullopt};
    const host::Kind existing = host::ExamineLink(item.hostPath).kind;
    const bool conflict = item.isDirectory ? existing != host::Kind::kMissing &&
                                                 existing != host::Kind::kDirectory
                                           : existing == host::Kind::kDirectory ||
                                                 existing == host::Kind::kOther;
    if (conflict) {
      throw ToolError(item.hostPath, "exists and is not a " +
                                         std::string(item.isDirectory ? "directory" : "file") +
                                         ", nothing exported");
    }
    if (!item.isDirectory && existing != host::Kind::kMissing && !options.force) {
      throw ToolError(item.hostPath,
                      "file exists, nothing exported (--force replaces existing files)");
    }
    if (!item.isDirectory) {
      try {
        item.size = VelFile::SizeOf(root, inner);
      } catch (const ToolError& error) {
        problems.Report(shown, error.Cause() + ": not exported");
        return;
      }
      ++files;
    }
    if (item.isDirectory && database) return;
    items.push_back(std::move(item));
  });

  // A database row whose Path does not end in '/' is in no listing; it is named here.
  if (database) {
    for (const std::string& row : UnlistedRows(root.Subject(""), directory)) {
      problems.Report(root.Display(row),
                      "stored with a Path that does not end in '/', which no listing reaches: "
                      "not exported");
    }
  }

  // What the files need is compared with the target's free space before anything is written:
  // an archive whose members share their data (a "ZIP bomb") declares far more than it holds. A
  // size beyond the API's positions counts as the least such a file may be. The sum stops as
  // soon as it is too large, so a bomb of many members costs little to refuse.
  uint64_t free = 0;
  const std::string existingTarget = ExistingAncestor(options.target);
  const host::Error spaceError = host::FreeSpace(existingTarget, &free);
  uint64_t bytes = 0;
  for (const Item& item : items) {
    if (item.isDirectory) continue;
    bytes += item.size.value_or(kMaxDatabaseFile);
    if (!spaceError && bytes > free) {
      throw ToolError(options.target,
                      "the files declare more than " + Progress::FormatBytes(double(bytes)) +
                          " and " + existingTarget + " has " +
                          Progress::FormatBytes(double(free)) +
                          " free: nothing exported (an archive whose members overlap?)");
    }
  }

  if (const host::Error error = host::MakeDirectories(options.target)) {
    throw ToolError(options.target, error.text);
  }
  Progress progress(files, bytes, Progress::Wanted());
  for (const Item& item : items) {
    const std::string shown = root.Display(item.inner);
    if (item.isDirectory) {
      if (const host::Error error = host::MakeDirectory(item.hostPath)) {
        problems.Report(item.hostPath, error.text);
      }
      continue;
    }
    // Each file is written under a temporary name beside its own and renamed when complete, and
    // copied at the size measured above, so that no file reads past what it declared.
    try {
      if (database) {
        if (const host::Error error =
                host::MakeDirectories(item.hostPath.substr(0, item.hostPath.rfind('/')))) {
          throw ToolError(item.hostPath, error.text);
        }
      }
      VelFile source(root, item.inner, VelFile::kRead);
      ReplaceHostFile(item.hostPath, source, item.size, shown, &progress);
    } catch (const ToolError& error) {
      problems.Report(error.what(), "not exported");
      continue;
    }
    progress.FinishFile();
    PrintDone(options.verbose, item.hostPath);
  }
  progress.Done();
  std::printf("exported %" PRIu64 " files (%" PRIu64 " bytes) from %s into %s\n", progress.Files(),
              progress.Bytes(), from.Text().c_str(), options.target.c_str());
  if (problems.Count() != 0) {
    Problems::Warn(root.Subject(from.Inner()), std::to_string(problems.Count()) +
                                    (problems.Count() == 1 ? " entry" : " entries") +
                                    " not exported exactly (see above)");
  }
  return problems.Status();
}

}  // namespace

void AddTreeCopyCommands(CLI::App& app, Commands& commands) {
  auto import = std::make_shared<TreeCopyOptions>();
  CLI::App& importCommand =
      AddCommand(app, commands, "import", "Copy a host directory tree into a root in one transaction",
                 "velfs import assets/ store.db:", [import] { return Import(*import); });
  importCommand.add_flag("-v,--verbose", import->verbose, "Print each file as it is stored");
  importCommand.add_option("DIR", import->source, "Host directory to copy")->required();
  importCommand
      .add_option("DEST", import->target, "Database root (store.db:, store.db:assets/) or directory")
      ->required();

  auto exportOptions = std::make_shared<TreeCopyOptions>();
  CLI::App& exportCommand = AddCommand(
      app, commands, "export", "Copy the tree of a root (or of a directory in it) to a host directory",
      "velfs export pack.zip: unpacked/", [exportOptions] { return Export(*exportOptions); });
  exportCommand.add_flag("-v,--verbose", exportOptions->verbose, "Print each file as it is written");
  exportCommand.add_flag("--force", exportOptions->force,
                         "Replace existing files of DIR (completes or redoes an earlier export)");
  exportCommand
      .add_option("SRC", exportOptions->source, "Root or directory in it (store.db:, pack.zip:docs/)")
      ->required();
  exportCommand.add_option("DIR", exportOptions->target, "Host directory, made when missing")
      ->required();
}

}  // namespace velfs::tool
