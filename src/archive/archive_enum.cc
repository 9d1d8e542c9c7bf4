// ArchiveEnum: one directory level of a ZIP archive, listed from its member names.
#include "archive/archive_enum.h"

#include <string_view>

namespace velfs {

bool ArchiveEnum::BuildListing(const char* path, ZZIP_DIR* dir) {
  prefix_ = path;
  entries_.clear();
  names_.clear();
  AppendFile(std::string());  // the placeholder before the first child
  while (const ZZIP_DIRENT* member = zzip_readdir(dir)) {
    const std::string_view name(member->d_name);
    if (name.size() <= prefix_.size() || name.compare(0, prefix_.size(), prefix_) != 0) continue;
    const std::string_view rest = name.substr(prefix_.size());
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos) {
      AppendFile(std::string(rest));  // file children are not deduplicated
      continue;
    }
    AppendDirectory(std::string(rest.substr(0, slash + 1)));
  }
  zzip_rewinddir(dir);
  current_ = 0;
  return true;
}

void ArchiveEnum::AppendFile(std::string name) {
  if (!name.empty() && name.back() == '/') names_.insert(name);
  entries_.push_back({0, std::move(name)});
}

void ArchiveEnum::AppendDirectory(std::string name) {
  if (names_.insert(name).second) entries_.push_back({1, std::move(name)});
}

bool ArchiveEnum::MoveNext() {
  if (!OnEntry()) return false;
  ++current_;
  return OnEntry();
}

void ArchiveEnum::Reset() { current_ = 0; }

bool ArchiveEnum::GetName(char** name) {
  if (name == nullptr || !OnEntry()) return false;
  const std::string& text = entries_[current_].name;
  *name = CopyForHost(text.data(), text.size());
  return true;
}

bool ArchiveEnum::GetFullName(char** name) {
  if (name == nullptr || !OnEntry()) return false;
  std::string text = prefix_ + entries_[current_].name;
  if (IsDirectory() && (text.empty() || text.back() != '/')) text += '/';
  *name = CopyForHost(text.data(), text.size());
  return true;
}

bool ArchiveEnum::IsDirectory() { return OnEntry() && entries_[current_].kind == 1; }

}  // namespace velfs
