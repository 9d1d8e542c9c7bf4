// Walking trees: the library's listings (velfsCreateEnumIndir, velfsMoveNext, velfsGetName and
// velfsIsDirectory, the names released with free()) and the host's directories, sorted.
#include "walk.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "tool_error.h"

namespace velfs::tool {

namespace {

struct CloseEnum {
  void operator()(EnumHandle* handle) const { velfsCloseEnum(handle); }
};
struct FreeName {
  void operator()(char* name) const { std::free(name); }
};

void Walk(const Root& root, const std::string& directory, const std::string& relative, int depth,
          const std::function<void(const WalkEntry&)>& visit) {
  const Listing listing(root, directory);
  const std::vector<Listing::Entry>& entries = listing.Entries();
  for (std::size_t i = 0; i < entries.size(); ++i) {
    const Listing::Entry& entry = entries[i];
    const WalkEntry walked{relative + entry.name, entry.isDirectory, depth,
                           i + 1 == entries.size()};
    visit(walked);
    if (entry.isDirectory) {
      Walk(root, directory + entry.name + '/', walked.path + '/', depth + 1, visit);
    }
  }
}

void Warn(const std::string& path, const char* why) {
  std::fflush(stdout);
  std::fprintf(stderr, "velfs: %s: skipped: %s\n", path.c_str(), why);
}

}  // namespace

Listing::Listing(const Root& root, std::string_view inner) {
  const std::string directory = VelPath::DirectoryPath(inner);
  const std::unique_ptr<EnumHandle, CloseEnum> list(
      velfsCreateEnumIndir(root.Handle(), directory.c_str()));
  if (!list) throw ToolError(root.Display(directory), "cannot list this directory");
  while (velfsMoveNext(list.get())) {
    char* raw = nullptr;
    if (!velfsGetName(list.get(), &raw)) continue;
    const std::unique_ptr<char, FreeName> name(raw);
    Entry entry{name.get(), velfsIsDirectory(list.get())};
    // Database and archive listings end directory names in '/', native ones do not.
    while (!entry.name.empty() && entry.name.back() == '/') entry.name.pop_back();
    // A row stored under a path ending in '/' lists as a file without a name; no path can name
    // it, so it is not shown.
    if (entry.name.empty()) continue;
    entries_.push_back(std::move(entry));
  }
  std::stable_sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
    if (a.isDirectory != b.isDirectory) return a.isDirectory;
    return a.name < b.name;
  });
}

void WalkTree(const Root& root, std::string_view inner,
              const std::function<void(const WalkEntry&)>& visit) {
  Walk(root, VelPath::DirectoryPath(inner), "", 0, visit);
}

HostTree::HostTree(const std::string& directory, const Exclude& exclude) {
  Scan(VelPath::DirectoryPath(directory), "", exclude);
}

void HostTree::Scan(const std::string& hostPath, const std::string& relative,
                    const Exclude& exclude) {
  std::vector<std::string> names;
  if (const host::Error error = host::ListDirectory(hostPath, &names)) {
    throw ToolError(hostPath, error.text);
  }
  std::sort(names.begin(), names.end());

  std::vector<Entry> files;
  std::vector<std::string> subdirectories;
  for (const std::string& name : names) {
    const std::string path = hostPath + name;
    if (name.find('\\') != std::string::npos) {
      throw ToolError(path, "the name contains '\\', which velfs reads as '/'");
    }
    host::Info info = host::ExamineLink(path);
    if (info.kind == host::Kind::kMissing) throw ToolError(path, info.error.text);
    const bool isLink = info.kind == host::Kind::kLink;
    if (isLink) {
      info = host::Examine(path);
      if (info.kind == host::Kind::kMissing) {
        Warn(path, "dangling symbolic link");
        continue;
      }
    }
    if (info.kind == host::Kind::kDirectory) {
      if (isLink) {
        Warn(path, "symbolic link to a directory, not followed");
      } else {
        subdirectories.push_back(name);
      }
    } else if (info.kind != host::Kind::kFile) {
      Warn(path, "not a regular file");
    } else if (!exclude(info.identity)) {
      files.push_back({relative + name, false, info.size});
    }
  }
  for (const std::string& name : subdirectories) {
    entries_.push_back({relative + name, true, 0});
    Scan(hostPath + name + '/', relative + name + '/', exclude);
  }
  for (Entry& file : files) {
    ++files_;
    bytes_ += file.size;
    entries_.push_back(std::move(file));
  }
}

}  // namespace velfs::tool
