// Archives: the input is written to a file and offered as a root. When it is taken as an archive,
// every entry is listed (recursively), existence-tested, opened, read to its end, positioned with
// all three origins and read again. Crashes, sanitizer reports and leaks are the findings.
#include <string>
#include <vector>

#include "archive/archive_storage.h"
#include "fuzz_support.h"
#include "velfs.h"

namespace {

void Exercise(FileHandle* file) {
  char buffer[4093];  // an odd size, so that reads end inside inflate blocks
  uint64_t length = 0;
  for (uint64_t count; (count = velfsRead(file, buffer, sizeof buffer)) - 1 < sizeof buffer;) {
    length += count;
  }
  const int32_t origins[][2] = {{0, 0}, {static_cast<int32_t>(length / 2), 0},
                                {-static_cast<int32_t>(length / 3) - 1, 1}, {-7, 2}, {1, 2}};
  for (const auto& [offset, origin] : origins) {
    velfsSeek(file, offset, origin);
    velfsRead(file, buffer, 64);
    velfsTell(file);
    velfsError(file);
  }
  velfsWrite(file, buffer, 1);
  velfsResize(file, 0);
  velfsCloseFile(file);
}

void List(DirHandle* dir, const std::string& root, const std::string& path, int& budget) {
  EnumHandle* listing = velfsCreateEnumIndir(dir, path.c_str());
  std::vector<std::string> directories;
  while (--budget > 0 && velfsMoveNext(listing)) {
    char* name = nullptr;
    if (velfsGetName(listing, &name)) std::free(name);
    if (!velfsGetFullName(listing, &name)) continue;
    const std::string full = name;
    std::free(name);
    bool exists = false;
    velfsIsFileExist(dir, full.c_str(), &exists);
    velfsIsDirectoryExist(dir, full.c_str(), &exists);
    if (velfsIsDirectory(listing)) {
      directories.push_back(full);
    } else if (FileHandle* file = velfsCreateFileIndir(dir, full.c_str(), 0)) {
      Exercise(file);
      // The same member through a full path, unless a ':' in its name would cut it elsewhere.
      if (full.find(':') == std::string::npos) {
        if (FileHandle* again = velfsCreateFile((root + ":" + full).c_str(), 0)) Exercise(again);
      }
    }
  }
  velfsReset(listing);
  velfsMoveNext(listing);
  velfsCloseEnum(listing);
  for (const std::string& directory : directories) List(dir, root, directory, budget);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static const velfs_fuzz::Sandbox sandbox("archive");
  const std::string path = sandbox.PathOf("input");
  velfs_fuzz::WriteFile(path, std::string(reinterpret_cast<const char*>(data), size));
  // Offered as a root only when the archive back-end takes it: anything else would go to SQLite,
  // the database target's subject.
  if (velfs::OpenArchiveStorage(path, velfs::host::Stat(path)) == nullptr) return 0;
  DirHandle* dir = velfsOpenDir(path.c_str());
  int budget = 1024;
  List(dir, path, "", budget);
  velfsCloseDir(dir);
  return 0;
}
