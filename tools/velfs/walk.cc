// Walking trees: the library's listings (velfsCreateEnumIndir, velfsMoveNext, velfsGetName and
// velfsIsDirectory, the names released with free()) and the host's directories, sorted.
#include "walk.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <utility>

#include "tool_error.h"

namespace velfs::tool {

namespace {

struct CloseEnum {
  void operator()(EnumHandle* handle) const { velfsCloseEnum(handle); }
};
struct FreeName {
  void operator()(char* name) const { std::free(name); }
};

// One walk: the directories it is inside, known by their host identity (directory roots), so that
// a directory met again is reported as a cycle instead of being entered.
class Walker {
 public:
  Walker(const Root& root, Problems& problems, const std::function<void(const WalkEntry&)>& visit)
      : root_(root), problems_(problems), visit_(visit) {}

  void Walk(const std::string& directory, const std::string& relative, int depth) {
    std::optional<Listing> listing;
    try {
      listing.emplace(root_, directory);
    } catch (const ToolError& error) {
      if (depth == 0) throw;
      problems_.Report(root_.Display(directory), error.Cause());
      return;
    }
    if (listing->Unnamed() != 0) {
      problems_.Report(root_.Subject(directory),
                       std::to_string(listing->Unnamed()) +
                           (listing->Unnamed() == 1 ? " stored entry" : " stored entries") +
                           " without a name here (a path with '//' or a leading "
                           "'/', or an empty file name), which no path reaches: left out");
    }
    const bool host = root_.Kind() == RootKind::kDirectory;
    if (host && depth == 0) ancestors_.push_back(host::Examine(HostPath(directory)).identity);
    // Left out before the walk, so that the last entry visited is the last one drawn.
    std::vector<Listing::Entry> entries = listing->Entries();
    if (root_.Kind() == RootKind::kDatabase) {
      entries.erase(std::remove_if(entries.begin(), entries.end(),
                                   [&](const Listing::Entry& entry) {
                                     return entry.isDirectory &&
                                            root_.Lookup(directory + entry.name + '/') !=
                                                EntryKind::kDirectory;
                                   }),
                    entries.end());
    }
    for (std::size_t i = 0; i < entries.size(); ++i) {
      const Listing::Entry& entry = entries[i];
      WalkEntry walked{relative + entry.name, entry.isDirectory, depth, i + 1 == entries.size()};
      const std::string inner = directory + entry.name;
      if (!entry.isDirectory) {
        visit_(walked);
        continue;
      }
      host::Identity identity;
      if (host) {
        const host::Info info = host::ExamineLink(HostPath(inner));
        walked.link = info.kind == host::Kind::kLink;
        identity = info.identity;
      }
      if (!walked.link && std::find(ancestors_.begin(), ancestors_.end(), identity) !=
                              ancestors_.end()) {
        problems_.Report(root_.Display(inner),
                         "cycle: the directory contains itself (a bind mount?), not entered");
        continue;
      }
      visit_(walked);
      if (walked.link) continue;
      if (depth + 1 >= kMaxWalkDepth) {
        problems_.Report(root_.Display(inner), "more than " + std::to_string(kMaxWalkDepth) +
                                                   " directory levels, not entered");
        continue;
      }
      if (host) ancestors_.push_back(identity);
      Walk(inner + '/', walked.path + '/', depth + 1);
      if (host) ancestors_.pop_back();
    }
  }

 private:
  std::string HostPath(const std::string& inner) const {
    std::string path = root_.HostPathOf(inner);
    while (path.size() > 1 && path.back() == '/') path.pop_back();
    return path;
  }

  const Root& root_;
  Problems& problems_;
  const std::function<void(const WalkEntry&)>& visit_;
  std::vector<host::Identity> ancestors_;
};

void Warn(const std::string& path, const char* why) {
  Problems::Warn(path, std::string("skipped: ") + why);
}

}  // namespace

Listing::Listing(const Root& root, std::string_view inner) {
  const std::string directory = VelPath::DirectoryPath(inner);
  const std::unique_ptr<EnumHandle, CloseEnum> list(
      velfsCreateEnumIndir(root.Handle(), directory.c_str()));
  // The library lists a host directory it may not read as empty: the host is asked.
  const bool denied =
      root.Kind() == RootKind::kDirectory && !host::CanRead(root.HostPathOf(directory));
  if (!list || denied) {
    throw ToolError(root.Display(directory),
                    denied ? "permission denied" : "cannot list this directory");
  }
  while (velfsMoveNext(list.get())) {
    char* raw = nullptr;
    if (!velfsGetName(list.get(), &raw)) continue;
    const std::unique_ptr<char, FreeName> name(raw);
    Entry entry{name.get(), velfsIsDirectory(list.get())};
    // Database and archive listings end directory names in '/', native ones do not.
    while (!entry.name.empty() && entry.name.back() == '/') entry.name.pop_back();
    // A row stored under a path ending in '/' lists as a file without a name, one whose path
    // holds "//" or starts with '/' as a directory without a name; no path can name them.
    if (entry.name.empty()) {
      ++unnamed_;
      continue;
    }
    entries_.push_back(std::move(entry));
  }
  std::stable_sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
    if (a.isDirectory != b.isDirectory) return a.isDirectory;
    return a.name < b.name;
  });
}

void WalkTree(const Root& root, std::string_view inner, Problems& problems,
              const std::function<void(const WalkEntry&)>& visit) {
  Walker(root, problems, visit).Walk(VelPath::DirectoryPath(inner), "", 0);
}

HostTree::HostTree(const std::string& directory, const Exclude& exclude) {
  std::vector<host::Identity> ancestors{host::Examine(directory).identity};
  Scan(VelPath::DirectoryPath(directory), "", exclude, ancestors);
}

void HostTree::Scan(const std::string& hostPath, const std::string& relative,
                    const Exclude& exclude, std::vector<host::Identity>& ancestors) {
  std::vector<std::string> names;
  if (const host::Error error = host::ListDirectory(hostPath, &names)) {
    throw ToolError(hostPath, error.text);
  }
  std::sort(names.begin(), names.end());

  std::vector<Entry> files;
  std::vector<std::pair<std::string, host::Identity>> subdirectories;
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
        Warn(path, info.error.code == host::Error::Code::kLoop ? "symbolic link loop"
                                                               : "dangling symbolic link");
        continue;
      }
    }
    if (info.kind == host::Kind::kDirectory) {
      if (isLink) {
        Warn(path, "symbolic link to a directory, not followed");
      } else {
        subdirectories.emplace_back(name, info.identity);
      }
    } else if (info.kind != host::Kind::kFile) {
      Warn(path, "not a regular file");
    } else if (!exclude(info.identity)) {
      files.push_back({relative + name, false, info.size});
    }
  }
  for (const auto& [name, identity] : subdirectories) {
    if (std::find(ancestors.begin(), ancestors.end(), identity) != ancestors.end()) {
      throw ToolError(hostPath + name, "cycle: the directory contains itself (a bind mount?)");
    }
    entries_.push_back({relative + name, true, 0});
    ancestors.push_back(identity);
    Scan(hostPath + name + '/', relative + name + '/', exclude, ancestors);
    ancestors.pop_back();
  }
  for (Entry& file : files) {
    ++files_;
    bytes_ += file.size;
    entries_.push_back(std::move(file));
  }
}

}  // namespace velfs::tool
