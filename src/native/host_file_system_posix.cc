// POSIX implementation of the platform seam (host_file_system.h).
//
// Wide paths come back to UTF-8 through WideToUtf8, so a path behaves exactly as it
// would on Windows: malformed UTF-8 names the entry whose name holds U+FFFD in its place.
// Windows' share modes have no POSIX counterpart and are not imitated.
#include <dirent.h>
#include <sys/stat.h>

#include <string_view>

#include "native/host_file_system.h"
#include "host/text_conversion.h"

namespace velfs::host {
namespace {

std::string HostPath(const std::u16string& path) {
  std::string narrow;
  WideToUtf8(path.data(), path.size(), narrow);
  return narrow;
}

bool IsDirectoryPath(const std::string& path) {
  struct stat status;
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

// Windows wildcard matching of one name: '*' any run, '?' one character; a pattern ending in
// ".*" also matches without that suffix, which is how "*.*" matches names without a dot.
bool Matches(std::string_view pattern, std::string_view name) {
  if (pattern.empty()) return name.empty();
  if (pattern.front() == '*') {
    for (std::size_t skip = 0; skip <= name.size(); ++skip) {
      if (Matches(pattern.substr(1), name.substr(skip))) return true;
    }
    return false;
  }
  if (pattern == ".*" && name.empty()) return true;
  if (name.empty() || (pattern.front() != '?' && pattern.front() != name.front())) return false;
  return Matches(pattern.substr(1), name.substr(1));
}

}  // namespace

uint32_t GetFileAttributes(const std::u16string& path) {
  struct stat status;
  if (::stat(HostPath(path).c_str(), &status) != 0) return kInvalidFileAttributes;
  return S_ISDIR(status.st_mode) ? kFileAttributeDirectory : 0;
}

bool CreateDirectory(const std::u16string& path) {
  return ::mkdir(HostPath(path).c_str(), 0777) == 0;
}

Stream OpenStream(const std::u16string& path, const char16_t* mode) {
  std::string narrowMode;
  WideToUtf8(mode, narrowMode);
  return Stream(std::fopen(HostPath(path).c_str(), narrowMode.c_str()));
}

int64_t TellStream(std::FILE* stream) { return ::ftello(stream); }

int SeekStream(std::FILE* stream, int64_t offset, int origin) {
  return ::fseeko(stream, static_cast<off_t>(offset), origin) == 0 ? 0 : -1;
}

class Search {
 public:
  Search(DIR* directory, std::string directoryPath, std::string namePattern)
      : directory_(directory),
        directoryPath_(std::move(directoryPath)),
        namePattern_(std::move(namePattern)) {}
  ~Search() { ::closedir(directory_); }
  Search(const Search&) = delete;
  Search& operator=(const Search&) = delete;

  // Reads on to the next entry whose name matches the pattern.
  bool Next(FindData& data) {
    while (const dirent* entry = ::readdir(directory_)) {
      if (!Matches(namePattern_, entry->d_name)) continue;
      data.name = entry->d_name;
      bool directory = entry->d_type == DT_DIR;
      if (entry->d_type == DT_UNKNOWN || entry->d_type == DT_LNK) {
        directory = IsDirectoryPath(directoryPath_ + data.name);
      }
      data.attributes = directory ? kFileAttributeDirectory : 0;
      return true;
    }
    return false;
  }

 private:
  DIR* directory_;
  std::string directoryPath_;  // ends in '/', or empty for the current directory
  std::string namePattern_;
};

void SearchCloser::operator()(Search* search) const { delete search; }

SearchHandle FindFirst(const std::string& pattern, FindData& data) {
  const std::size_t slash = pattern.rfind('/');
  std::string directoryPath = slash == std::string::npos ? "" : pattern.substr(0, slash + 1);
  std::string namePattern = pattern.substr(slash == std::string::npos ? 0 : slash + 1);
  DIR* directory = ::opendir(directoryPath.empty() ? "." : directoryPath.c_str());
  if (directory == nullptr) return nullptr;
  SearchHandle search(new Search(directory, std::move(directoryPath), std::move(namePattern)));
  if (!search->Next(data)) return nullptr;
  return search;
}

bool FindNext(Search& search, FindData& data) { return search.Next(data); }

}  // namespace velfs::host
