// ImportCommand: HostTree, then RootWriter for every file between one Root::Begin and
// Root::Commit; directories of a directory root are made with velFSCreateDirectory.
#include "import_command.h"

#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>

#include "host_file.h"
#include "host_tree.h"
#include "listing.h"
#include "progress.h"
#include "root.h"
#include "root_writer.h"
#include "tool_error.h"
#include "vel_path.h"

namespace velfs::tool {

namespace {

// Every level of a directory root's path `directory` (ending in '/'), made one by one.
void MakeDirectories(const Root& root, const std::string& directory) {
  for (std::size_t slash = directory.find('/'); slash != std::string::npos;
       slash = directory.find('/', slash + 1)) {
    velFSCreateDirectory(root.HostPathOf(directory.substr(0, slash)).c_str());
  }
}

}  // namespace

ImportCommand::ImportCommand(CLI::App& app)
    : Command(app, "import", "Copy a host directory tree into a root in one transaction",
              "velfs import assets/ store.db:") {
  Subcommand().add_flag("-v,--verbose", verbose_, "Print each file as it is stored");
  Subcommand().add_option("DIR", source_, "Host directory to copy")->required();
  Subcommand()
      .add_option("DEST", target_, "Database root (store.db:, store.db:assets/) or directory")
      ->required();
}

int ImportCommand::Run() {
  struct stat info {};
  if (::stat(source_.c_str(), &info) != 0) throw ToolError(source_, std::strerror(errno));
  if (!S_ISDIR(info.st_mode)) throw ToolError(source_, "not a directory (put copies one file)");

  const VelPath to = VelPath::Parse(target_);
  Root root = Root::Open(to, Root::Access::kWrite);
  root.RequireWritable(to.Inner());
  if (root.Lookup(to.Inner()) == EntryKind::kFile) throw ToolError(to.Text(), "not a directory");
  const std::string prefix = Listing::DirectoryPath(to.Inner());

  const HostTree tree(
      source_, [&root](dev_t device, ino_t inode) { return root.IsHostEntry(device, inode); });
  std::string host = source_;
  if (host.back() != '/') host += '/';
  const bool database = root.Kind() == RootKind::kDatabase;
  if (database) {
    for (const HostTree::Entry& entry : tree.Entries()) {
      if (!entry.isDirectory) RootWriter::CheckDatabaseSize(host + entry.path, entry.size);
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
    HostFile source = HostFile::OpenRead(host + entry.path);
    RootWriter::Store(root, target, source, entry.size, host + entry.path, &progress);
    progress.FinishFile();
    if (verbose_) {
      std::printf("%s\n", root.Display(target).c_str());
      std::fflush(stdout);
    }
  }
  if (database) root.Commit();
  progress.Done();
  std::printf("imported %" PRIu64 " files (%" PRIu64 " bytes) from %s into %s\n", progress.Files(),
              progress.Bytes(), source_.c_str(), to.Text().c_str());
  return 0;
}

}  // namespace velfs::tool
