// HostTree: opendir/readdir/lstat/stat, names sorted per level.
#include "host_tree.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "tool_error.h"

namespace velfs::tool {

namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

void Warn(const std::string& path, const char* why) {
  std::fflush(stdout);
  std::fprintf(stderr, "velfs: %s: skipped: %s\n", path.c_str(), why);
}

}  // namespace

HostTree::HostTree(const std::string& directory, const Exclude& exclude) {
  std::string host = directory;
  if (host.back() != '/') host += '/';
  Scan(host, "", exclude);
}

void HostTree::Scan(const std::string& host, const std::string& relative, const Exclude& exclude) {
  const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(host.c_str()));
  if (!directory) throw ToolError(host, std::strerror(errno));
  std::vector<std::string> names;
  while (const dirent* entry = ::readdir(directory.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  std::sort(names.begin(), names.end());

  std::vector<Entry> files;
  std::vector<std::string> subdirectories;
  for (const std::string& name : names) {
    const std::string path = host + name;
    if (name.find('\\') != std::string::npos) {
      throw ToolError(path, "the name contains '\\', which velfs reads as '/'");
    }
    struct stat link {};
    struct stat info {};
    if (::lstat(path.c_str(), &link) != 0) throw ToolError(path, std::strerror(errno));
    const bool isLink = S_ISLNK(link.st_mode);
    if (isLink && ::stat(path.c_str(), &info) != 0) {
      Warn(path, "dangling symbolic link");
      continue;
    }
    if (!isLink) info = link;
    if (S_ISDIR(info.st_mode)) {
      if (isLink) {
        Warn(path, "symbolic link to a directory, not followed");
      } else {
        subdirectories.push_back(name);
      }
    } else if (!S_ISREG(info.st_mode)) {
      Warn(path, "not a regular file");
    } else if (!exclude(info.st_dev, info.st_ino)) {
      files.push_back({relative + name, false, static_cast<uint64_t>(info.st_size)});
    }
  }
  for (const std::string& name : subdirectories) {
    entries_.push_back({relative + name, true, 0});
    Scan(host + name + '/', relative + name + '/', exclude);
  }
  for (Entry& file : files) {
    ++files_;
    bytes_ += file.size;
    entries_.push_back(std::move(file));
  }
}

}  // namespace velfs::tool
