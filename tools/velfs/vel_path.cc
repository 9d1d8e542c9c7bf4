// VelPath: the three forms of a command-line path (see vel_path.h).
#include "vel_path.h"

#include <sys/stat.h>

#include <algorithm>

#include "tool_error.h"

namespace velfs::tool {

namespace {

enum class HostEntry { kNone, kDirectory, kOther };

HostEntry Probe(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) != 0) return HostEntry::kNone;
  return S_ISDIR(info.st_mode) ? HostEntry::kDirectory : HostEntry::kOther;
}

}  // namespace

VelPath VelPath::Parse(std::string_view text) {
  if (text.empty()) throw ToolError("", "empty path", ToolError::kUsage);
  VelPath path;
  path.text_.assign(text);
  std::replace(path.text_.begin(), path.text_.end(), '\\', '/');
  const std::string& normal = path.text_;

  const HostEntry entry = Probe(normal);
  if (entry == HostEntry::kDirectory) {
    path.root_ = path.host_ = normal;
    path.prefix_ = normal.back() == '/' ? normal : normal + '/';
    return path;
  }
  const std::size_t colon = normal.rfind(':');
  if (entry == HostEntry::kNone && colon != std::string::npos) {
    path.containerForm_ = true;
    path.root_ = path.prefix_ = normal.substr(0, colon + 1);
    path.host_ = normal.substr(0, colon);
    path.inner_ = normal.substr(colon + 1);
    return path;
  }
  // A host file, or a host path still to be made: the nearest existing directory above it.
  std::size_t cut = normal.size();
  if (normal.back() == '/') --cut;  // `out/` names the entry `out`
  for (;;) {
    cut = cut == 0 ? std::string::npos : normal.rfind('/', cut - 1);
    if (cut == std::string::npos) {
      path.root_ = path.host_ = "./";
      path.inner_ = normal;
      return path;
    }
    const std::string parent = normal.substr(0, cut + 1);
    if (Probe(parent) == HostEntry::kDirectory) {
      path.root_ = path.host_ = path.prefix_ = parent;
      path.inner_ = normal.substr(cut + 1);
      return path;
    }
  }
}

std::string VelPath::Display(std::string_view inner) const {
  std::string shown = prefix_;
  shown.append(inner);
  return shown.empty() ? std::string(".") : shown;
}

std::string VelPath::BaseName(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  const std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string VelPath::RootDisplay() const { return prefix_.empty() ? std::string(".") : prefix_; }

}  // namespace velfs::tool
