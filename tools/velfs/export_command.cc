// ExportCommand: TreeWalk and VelFile::SizeOf, the checks, then mkdir and HostFile per entry.
#include "export_command.h"

#include <sys/stat.h>

#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <set>
#include <system_error>
#include <vector>

#include "host_file.h"
#include "listing.h"
#include "progress.h"
#include "root.h"
#include "tool_error.h"
#include "transfer.h"
#include "tree_walk.h"
#include "vel_file.h"
#include "vel_path.h"

namespace velfs::tool {

namespace {

struct Item {
  std::string inner;  // path inside the root
  std::string host;   // path on the host
  bool isDirectory;
  std::optional<uint64_t> size;
};

// A name that would leave the target directory when joined to it.
bool Unsafe(const std::string& path) {
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = path.find('/', start);
    const std::string part = path.substr(start, end - start);
    if (part.empty() || part == "." || part == "..") return true;
    if (end == std::string::npos) return false;
    start = end + 1;
  }
}

}  // namespace

ExportCommand::ExportCommand(CLI::App& app)
    : Command(app, "export",
              "Copy the tree of a root (or of a directory in it) to a host directory",
              "velfs export pack.zip: unpacked/") {
  Subcommand().add_flag("-v,--verbose", verbose_, "Print each file as it is written");
  Subcommand()
      .add_option("SRC", source_, "Root or directory in it (store.db:, pack.zip:docs/)")
      ->required();
  Subcommand().add_option("DIR", target_, "Host directory, made when missing")->required();
}

int ExportCommand::Run() {
  const VelPath from = VelPath::Parse(source_);
  const Root root = Root::Open(from, Root::Access::kRead);
  root.RequireDirectory(from, "no such directory", "not a directory (get copies one file)");
  struct stat targetInfo {};
  if (::stat(target_.c_str(), &targetInfo) == 0 && !S_ISDIR(targetInfo.st_mode)) {
    throw ToolError(target_, "not a directory");
  }
  const std::string directory = Listing::DirectoryPath(from.Inner());
  std::string hostDirectory = target_;
  if (hostDirectory.back() != '/') hostDirectory += '/';

  std::vector<Item> items;
  std::set<std::string> seen;
  uint64_t files = 0;
  uint64_t bytes = 0;
  const TreeWalk tree(root, directory);
  for (const TreeWalk::Entry& entry : tree.Entries()) {
    const std::string inner = directory + entry.path;
    if (Unsafe(entry.path)) throw ToolError(root.Display(inner), "unsafe name, nothing exported");
    if (!seen.insert(entry.path).second) {
      std::fprintf(stderr, "velfs: %s: skipped: listed twice\n", root.Display(inner).c_str());
      continue;
    }
    Item item{inner, hostDirectory + entry.path, entry.isDirectory, std::nullopt};
    struct stat info {};
    if (::lstat(item.host.c_str(), &info) == 0 && (!item.isDirectory || !S_ISDIR(info.st_mode))) {
      throw ToolError(item.host, "file exists, nothing exported");
    }
    if (!item.isDirectory) {
      item.size = VelFile::SizeOf(root, inner);  // for the totals of the progress bar
      ++files;
      bytes += item.size.value_or(0);
    }
    items.push_back(std::move(item));
  }

  std::error_code error;
  std::filesystem::create_directories(target_, error);
  if (error) throw ToolError(target_, error.message());

  Progress progress(files, bytes, Progress::Wanted());
  for (const Item& item : items) {
    if (item.isDirectory) {
      if (::mkdir(item.host.c_str(), 0777) != 0 && errno != EEXIST) {
        throw ToolError(item.host, std::strerror(errno));
      }
      continue;
    }
    VelFile source(root, item.inner, VelFile::kRead);
    HostFile output = HostFile::OpenWrite(item.host, true);
    Transfer::Copy(source, output, source.CopySize(), root.Display(item.inner), &progress);
    output.Close();
    progress.FinishFile();
    if (verbose_) {
      std::printf("%s\n", item.host.c_str());
      std::fflush(stdout);
    }
  }
  progress.Done();
  std::printf("exported %" PRIu64 " files (%" PRIu64 " bytes) from %s into %s\n", progress.Files(),
              progress.Bytes(), from.Text().c_str(), target_.c_str());
  return 0;
}

}  // namespace velfs::tool
