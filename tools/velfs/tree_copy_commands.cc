// The commands that copy whole trees, with a progress bar on a terminal and a one-line summary:
// - `velfs import [-v] DIR DEST`: a host tree copied into a database root (or a directory root),
//   below DEST's inner path. Into a database root everything is written in one transaction
//   (velfsBeginTrans ... velfsCommitTrans), so a failure or an interruption leaves the database
//   as it was; directories of a directory root are made with velFSCreateDirectory. -v prints
//   each stored file.
// - `velfs export [-v] SRC DIR`: the tree below a directory of a root (a database, a ZIP archive
//   or a directory) copied to a host directory, which is made when missing. Existing host files
//   are never overwritten: every target is checked before the first byte is written. -v prints
//   each written file.
#include <cinttypes>
#include <cstdio>
#include <memory>
#include <set>
#include <vector>

#include "commands.h"
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

int Export(const TreeCopyOptions& options) {
  const VelPath from = VelPath::Parse(options.source);
  const Root root = Root::Open(from, Root::Access::kRead);
  root.RequireDirectory(from, "no such directory", "not a directory (get copies one file)");
  const host::Kind targetKind = host::Examine(options.target).kind;
  if (targetKind != host::Kind::kMissing && targetKind != host::Kind::kDirectory) {
    throw ToolError(options.target, "not a directory");
  }
  const std::string directory = VelPath::DirectoryPath(from.Inner());
  const std::string hostDirectory = VelPath::DirectoryPath(options.target);

  // Every entry is checked, and every file's size taken for the progress bar, before anything
  // is written.
  struct Item {
    std::string inner;  // path inside the root
    std::string hostPath;
    bool isDirectory;
  };
  std::vector<Item> items;
  std::set<std::string> seen;
  uint64_t files = 0;
  uint64_t bytes = 0;
  WalkTree(root, directory, [&](const WalkEntry& entry) {
    const std::string inner = directory + entry.path;
    if (LeavesTheTarget(entry.path)) {
      throw ToolError(root.Display(inner), "unsafe name, nothing exported");
    }
    if (!seen.insert(entry.path).second) {
      std::fprintf(stderr, "velfs: %s: skipped: listed twice\n", root.Display(inner).c_str());
      return;
    }
    Item item{inner, hostDirectory + entry.path, entry.isDirectory};
    const host::Kind existing = host::ExamineLink(item.hostPath).kind;
    if (existing != host::Kind::kMissing &&
        (!item.isDirectory || existing != host::Kind::kDirectory)) {
      throw ToolError(item.hostPath, "file exists, nothing exported");
    }
    if (!item.isDirectory) {
      ++files;
      bytes += VelFile::SizeOf(root, inner).value_or(0);
    }
    items.push_back(std::move(item));
  });

  if (const host::Error error = host::MakeDirectories(options.target)) {
    throw ToolError(options.target, error.text);
  }
  Progress progress(files, bytes, Progress::Wanted());
  for (const Item& item : items) {
    if (item.isDirectory) {
      if (const host::Error error = host::MakeDirectory(item.hostPath)) {
        throw ToolError(item.hostPath, error.text);
      }
      continue;
    }
    VelFile source(root, item.inner, VelFile::kRead);
    HostFile output = HostFile::OpenWrite(item.hostPath, true);
    CopyBytes(source, output, source.CopySize(), root.Display(item.inner), &progress);
    output.Close();
    progress.FinishFile();
    PrintDone(options.verbose, item.hostPath);
  }
  progress.Done();
  std::printf("exported %" PRIu64 " files (%" PRIu64 " bytes) from %s into %s\n", progress.Files(),
              progress.Bytes(), from.Text().c_str(), options.target.c_str());
  return 0;
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
  exportCommand
      .add_option("SRC", exportOptions->source, "Root or directory in it (store.db:, pack.zip:docs/)")
      ->required();
  exportCommand.add_option("DIR", exportOptions->target, "Host directory, made when missing")
      ->required();
}

}  // namespace velfs::tool
