// Listing: velfsCreateEnumIndir, velfsMoveNext, velfsGetName and velfsIsDirectory,
// the names released with free(), the entries sorted.
#include "listing.h"

#include <algorithm>
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

}  // namespace

std::string Listing::DirectoryPath(std::string_view inner) {
  std::string directory(inner);
  if (!directory.empty() && directory.back() != '/') directory += '/';
  return directory;
}

Listing::Listing(const Root& root, std::string_view inner) {
  const std::string directory = DirectoryPath(inner);
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
    // A row stored under a path ending in '/' lists as a file without a name; no path
    // can name it, so it is not shown.
    if (entry.name.empty()) continue;
    entries_.push_back(std::move(entry));
  }
  std::stable_sort(entries_.begin(), entries_.end(), [](const Entry& a, const Entry& b) {
    if (a.isDirectory != b.isDirectory) return a.isDirectory;
    return a.name < b.name;
  });
}

}  // namespace velfs::tool
