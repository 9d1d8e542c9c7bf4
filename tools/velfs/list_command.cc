// ListCommand: Listing or TreeWalk, printed one entry a line.
#include "list_command.h"

#include <cstdio>
#include <vector>

#include "listing.h"
#include "root.h"
#include "tool_error.h"
#include "tree_walk.h"
#include "vel_file.h"
#include "vel_path.h"

namespace velfs::tool {

namespace {

struct Line {
  std::string name;
  bool isDirectory;
  std::string size;  // -l only
};

void Print(const std::vector<Line>& lines, bool withDetails) {
  std::size_t width = 1;
  for (const Line& line : lines) width = std::max(width, line.size.size());
  for (const Line& line : lines) {
    const char* slash = line.isDirectory ? "/" : "";
    if (withDetails) {
      std::printf("%-4s %*s %s%s\n", line.isDirectory ? "dir" : "file", static_cast<int>(width),
                  line.size.c_str(), line.name.c_str(), slash);
    } else {
      std::printf("%s%s\n", line.name.c_str(), slash);
    }
  }
}

}  // namespace

ListCommand::ListCommand(CLI::App& app)
    : Command(app, "ls", "List a directory level, or the whole tree with -R",
              "velfs ls -l store.db:docs/") {
  Subcommand().add_flag("-l,--long", long_, "Show kind (file/dir) and size in bytes");
  Subcommand().add_flag("-R,--recursive", recursive_, "List every entry below PATH");
  Subcommand()
      .add_option("PATH", path_, "A directory, a root (store.db:, pack.zip:) or a file")
      ->required();
}

int ListCommand::Run() {
  const VelPath path = VelPath::Parse(path_);
  const Root root = Root::Open(path, Root::Access::kRead);
  const std::string& inner = path.Inner();
  std::vector<Line> lines;
  auto sizeOf = [&](const std::string& file) -> std::string {
    if (!long_) return "";
    const std::optional<uint64_t> size = VelFile::SizeOf(root, file);
    return size ? std::to_string(*size) : "?";
  };
  switch (root.Lookup(inner)) {
    case EntryKind::kMissing:
      throw ToolError(path.Text(), "no such file or directory");
    case EntryKind::kFile:
      lines.push_back({path.Text(), false, sizeOf(inner)});
      break;
    case EntryKind::kDirectory: {
      const std::string directory = Listing::DirectoryPath(inner);
      if (recursive_) {
        const TreeWalk tree(root, directory);
        for (const TreeWalk::Entry& entry : tree.Entries()) {
          lines.push_back(
              {entry.path, entry.isDirectory,
               entry.isDirectory ? (long_ ? "-" : "") : sizeOf(directory + entry.path)});
        }
      } else {
        const Listing listing(root, directory);
        for (const Listing::Entry& entry : listing.Entries()) {
          lines.push_back(
              {entry.name, entry.isDirectory,
               entry.isDirectory ? (long_ ? "-" : "") : sizeOf(directory + entry.name)});
        }
      }
      break;
    }
  }
  Print(lines, long_);
  return 0;
}

}  // namespace velfs::tool
