// The commands that inspect a root and change nothing:
// - `velfs ls [-l] [-R] PATH`: the entries of a directory (directories first, with a trailing
//   '/'; a symbolic link to a directory with a trailing '@', not entered), or of the whole tree
//   below it with -R (paths relative to PATH); -l adds kind and size. A file lists as itself. An
//   entry that cannot be listed or sized is reported and the listing goes on (status 1).
//   ls and tree print every name through ShownName: a name with control characters or bytes
//   that are not UTF-8 cannot reach the terminal as it is.
// - `velfs tree PATH`: the tree below a directory drawn with box characters (UTF-8), the same
//   order as ls; the last line counts directories and files.
// - `velfs cat PATH...`: the bytes of each file, in order, on standard output. A path that fails
//   is reported and the others are still written; the status is then 1.
// - `velfs stat PATH`: what PATH is (file or directory), its size or number of entries, and which
//   root and back-end serve it, one "key: value" line each.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <vector>

#include "commands.h"
#include "file_io.h"
#include "tool_error.h"
#include "walk.h"

namespace velfs::tool {

namespace {

// Whether `bytes[at]` starts a well-formed UTF-8 sequence of a printable character; answers its
// length, or 0.
std::size_t PrintableUtf8(std::string_view bytes, std::size_t at) {
  const auto byte = [&bytes](std::size_t i) {
    return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0u;
  };
  const unsigned lead = byte(at);
  const auto continuation = [&byte](std::size_t i) { return (byte(i) & 0xC0u) == 0x80u; };
  if (lead >= 0x20 && lead < 0x7F) return 1;
  if (lead >= 0xC2 && lead <= 0xDF && continuation(at + 1)) {
    // U+0080..U+009F are the C1 controls, which terminals obey.
    return lead == 0xC2 && byte(at + 1) < 0xA0 ? 0 : 2;
  }
  if (lead >= 0xE0 && lead <= 0xEF && continuation(at + 1) && continuation(at + 2)) {
    const unsigned second = byte(at + 1);
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second >= 0xA0)) return 0;
    return 3;
  }
  if (lead >= 0xF0 && lead <= 0xF4 && continuation(at + 1) && continuation(at + 2) &&
      continuation(at + 3)) {
    const unsigned second = byte(at + 1);
    if ((lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second >= 0x90)) return 0;
    return 4;
  }
  return 0;
}

// A name as ls and tree print it: unchanged when every character is printable UTF-8, else
// quoted in the way of GNU ls on a terminal: inside '...', a newline, tab or carriage return as
// \n, \t, \r, another control byte as an octal escape (\033), a byte that is not UTF-8 as '?',
// and a backslash or quote inside the name escaped (\\, \').
std::string ShownName(std::string_view name) {
  bool plain = true;
  for (std::size_t at = 0; at < name.size() && plain;) {
    const std::size_t length = PrintableUtf8(name, at);
    plain = length != 0;
    at += length;
  }
  if (plain) return std::string(name);
  std::string shown = "'";
  for (std::size_t at = 0; at < name.size();) {
    const std::size_t length = PrintableUtf8(name, at);
    const unsigned char byte = static_cast<unsigned char>(name[at]);
    if (length > 1 || (length == 1 && byte != '\\' && byte != '\'')) {
      shown.append(name.substr(at, length));
      at += length;
      continue;
    }
    ++at;
    switch (byte) {
      case '\n': shown += "\\n"; break;
      case '\t': shown += "\\t"; break;
      case '\r': shown += "\\r"; break;
      case '\\': shown += "\\\\"; break;
      case '\'': shown += "\\'"; break;
      default:
        if (byte < 0x20 || byte == 0x7F) {
          const char octal[] = {'\\', static_cast<char>('0' + (byte >> 6)),
                                static_cast<char>('0' + ((byte >> 3) & 7)),
                                static_cast<char>('0' + (byte & 7)), '\0'};
          shown += octal;
        } else {
          shown += '?';
        }
    }
  }
  return shown + "'";
}

// The mark after a name: '/' for a directory, '@' for a symbolic link to one.
const char* MarkOf(bool isDirectory, bool link) { return link ? "@" : isDirectory ? "/" : ""; }

struct ListOptions {
  std::string path;
  bool details = false;
  bool recursive = false;
};

struct Line {
  std::string name;
  bool isDirectory;
  std::string size;  // -l only
  bool link = false;
};

void PrintLines(const std::vector<Line>& lines, bool details) {
  std::size_t width = 1;
  for (const Line& line : lines) width = std::max(width, line.size.size());
  for (const Line& line : lines) {
    const char* mark = MarkOf(line.isDirectory, line.link);
    const std::string name = ShownName(line.name);
    if (details) {
      const char* kind = line.link ? "link" : line.isDirectory ? "dir" : "file";
      std::printf("%-4s %*s %s%s\n", kind, static_cast<int>(width), line.size.c_str(),
                  name.c_str(), mark);
    } else {
      std::printf("%s%s\n", name.c_str(), mark);
    }
  }
}

int List(const ListOptions& options) {
  const VelPath path = VelPath::Parse(options.path);
  const Root root = Root::Open(path, Root::Access::kReadOnly);
  const std::string& inner = path.Inner();
  Problems problems;
  // The size column of -l: the file's size, "?" when it is unknown (a file that cannot be opened
  // is reported), "-" for a directory.
  auto sizeOf = [&](const std::string& file, bool isDirectory) -> std::string {
    if (!options.details) return "";
    if (isDirectory) return "-";
    try {
      const std::optional<uint64_t> size = VelFile::SizeOf(root, file);
      return size ? std::to_string(*size) : "?";
    } catch (const ToolError& error) {
      problems.Report(root.Display(file), error.Cause());
      return "?";
    }
  };
  std::vector<Line> lines;
  switch (root.Lookup(inner)) {
    case EntryKind::kMissing:
      throw ToolError(path.Text(), "no such file or directory");
    case EntryKind::kFile:
      lines.push_back({path.Text(), false, sizeOf(inner, false)});
      break;
    case EntryKind::kDirectory: {
      const std::string directory = VelPath::DirectoryPath(inner);
      if (options.recursive) {
        WalkTree(root, directory, problems, [&](const WalkEntry& entry) {
          lines.push_back({entry.path, entry.isDirectory,
                           sizeOf(directory + entry.path, entry.isDirectory), entry.link});
        });
      } else {
        const Listing listing(root, directory);
        for (const Listing::Entry& entry : listing.Entries()) {
          lines.push_back(
              {entry.name, entry.isDirectory, sizeOf(directory + entry.name, entry.isDirectory)});
        }
      }
      break;
    }
  }
  PrintLines(lines, options.details);
  return problems.Status();
}

int DrawTree(const std::string& text) {
  const VelPath path = VelPath::Parse(text);
  const Root root = Root::Open(path, Root::Access::kReadOnly);
  root.RequireDirectory(path, "no such file or directory", "not a directory");
  std::printf("%s\n", ShownName(path.Text()).c_str());
  unsigned long long directories = 0;
  unsigned long long files = 0;
  // lastAt[d]: whether the open directory at depth d is the last entry of its own directory,
  // which draws the lines below it as blank rather than "│".
  std::vector<bool> lastAt;
  Problems problems;
  WalkTree(root, path.Inner(), problems, [&](const WalkEntry& entry) {
    lastAt.resize(static_cast<std::size_t>(entry.depth) + 1);
    lastAt.back() = entry.last;
    std::string indent;
    for (int depth = 0; depth < entry.depth; ++depth) indent += lastAt[depth] ? "    " : "│   ";
    std::printf("%s%s%s%s\n", indent.c_str(), entry.last ? "└── " : "├── ",
                ShownName(entry.Name()).c_str(), MarkOf(entry.isDirectory, entry.link));
    ++(entry.isDirectory && !entry.link ? directories : files);
  });
  std::printf("\n%llu %s, %llu %s\n", directories, directories == 1 ? "directory" : "directories",
              files, files == 1 ? "file" : "files");
  return problems.Status();
}

int Cat(const std::vector<std::string>& paths) {
  HostFile output = HostFile::StandardOutput();
  const int status = ForEachPath(paths, [&output](const VelPath& path) {
    const Root root = Root::Open(path, Root::Access::kReadOnly);
    root.RequireFile(path, "is a directory");
    VelFile file(root, path.Inner(), VelFile::kRead);
    CopyBytes(file, output, file.CopySize(), path.Text(), nullptr);
  });
  output.Close();
  return status;
}

int Stat(const std::string& text) {
  const VelPath path = VelPath::Parse(text);
  const Root root = Root::Open(path, Root::Access::kReadOnly);
  const std::string& inner = path.Inner();
  const EntryKind kind = root.Lookup(inner);
  if (kind == EntryKind::kMissing) throw ToolError(path.Text(), "no such file or directory");
  std::printf("path: %s\n", path.Text().c_str());
  if (kind == EntryKind::kFile) {
    const std::optional<uint64_t> size = VelFile::SizeOf(root, inner);
    std::printf("kind: file\nsize: %s\n", size ? std::to_string(*size).c_str() : "unknown");
  } else {
    std::printf("kind: directory\nentries: %zu\n", Listing(root, inner).Entries().size());
  }
  std::printf("root: %s\nback-end: %s\n", path.RootDisplay().c_str(), Root::KindName(root.Kind()));
  return 0;
}

}  // namespace

void AddInspectCommands(CLI::App& app, Commands& commands) {
  auto list = std::make_shared<ListOptions>();
  CLI::App& ls = AddCommand(app, commands, "ls", "List a directory level, or the whole tree with -R",
                            "velfs ls -l store.db:docs/", [list] { return List(*list); });
  ls.add_flag("-l,--long", list->details, "Show kind (file/dir) and size in bytes");
  ls.add_flag("-R,--recursive", list->recursive, "List every entry below PATH");
  ls.add_option("PATH", list->path, "A directory, a root (store.db:, pack.zip:) or a file")
      ->required();

  auto tree = std::make_shared<std::string>();
  AddCommand(app, commands, "tree", "Draw the tree below a directory or root",
             "velfs tree pack.zip:", [tree] { return DrawTree(*tree); })
      .add_option("PATH", *tree, "A directory or a root (store.db:, pack.zip:)")
      ->required();

  auto cat = std::make_shared<std::vector<std::string>>();
  AddCommand(app, commands, "cat", "Write the bytes of files to standard output",
             "velfs cat store.db:docs/readme.txt", [cat] { return Cat(*cat); })
      .add_option("PATH", *cat, "Files (store.db:docs/a.txt, assets/a.txt)")
      ->required();

  auto stat = std::make_shared<std::string>();
  AddCommand(app, commands, "stat", "Show kind, size and the back-end that serves a path",
             "velfs stat store.db:images/logo.png", [stat] { return Stat(*stat); })
      .add_option("PATH", *stat, "A file, a directory or a root")
      ->required();
}

}  // namespace velfs::tool
