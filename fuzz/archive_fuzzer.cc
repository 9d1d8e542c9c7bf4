// Fuzz target 1, archives: the input's bytes are written to a file that is offered as a root.
// When the archive back-end takes it, the root is listed recursively through the exported
// functions, and every listed entry is existence-tested, opened, read to its end, positioned
// backward and forward with all three origins and read again, and opened once more through a
// full path. Crashes, sanitizer reports and leaks are the findings.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "archive/archive_storage.h"
#include "host/host.h"
#include "fuzz_sandbox.h"
#include "velfs.h"

namespace velfs::fuzz {
namespace {

constexpr int kMaxDepth = 32;        // directory levels listed below the root
constexpr int kMaxListings = 256;    // listings per input (each one passes over every member)
constexpr int kMaxOpenedFiles = 512; // member streams per input
constexpr uint64_t kChunk = 4093;    // an odd read size, so reads end inside inflate blocks

struct Budget {
  int listings = 0;
  int openedFiles = 0;
};

// Reads the file to its end in chunks; answers how many bytes came.
uint64_t ReadToEnd(FileHandle* file) {
  std::vector<char> buffer(kChunk);
  uint64_t total = 0;
  for (;;) {
    const uint64_t count = velfsRead(file, buffer.data(), buffer.size());
    if (count == 0 || count > buffer.size()) break;
    total += count;
  }
  return total;
}

void ExerciseFile(FileHandle* file) {
  if (file == nullptr) return;
  const uint64_t length = ReadToEnd(file);
  velfsError(file);
  const int32_t end = velfsTell(file);
  char probe[64];
  velfsSeek(file, 0, 0);
  velfsRead(file, probe, sizeof probe);
  velfsSeek(file, static_cast<int32_t>(length / 2), 0);  // forward from a position near 0
  velfsRead(file, probe, sizeof probe);
  velfsSeek(file, -static_cast<int32_t>(length / 3) - 1, 1);  // backward
  velfsRead(file, probe, sizeof probe);
  velfsSeek(file, -7, 2);
  velfsRead(file, probe, sizeof probe);
  velfsSeek(file, end, 0);
  velfsSeek(file, 1, 2);  // beyond the end
  velfsRead(file, probe, sizeof probe);
  velfsTell(file);
  velfsError(file);
  char byte = 0;
  velfsWrite(file, &byte, 1);  // archive files are read-only
  velfsResize(file, 0);
  velfsCloseFile(file);
}

void ListRecursively(DirHandle* dir, const std::string& rootPath, const std::string& path,
                     int depth, Budget& budget) {
  if (depth > kMaxDepth || budget.listings >= kMaxListings) return;
  ++budget.listings;
  EnumHandle* listing = velfsCreateEnumIndir(dir, path.c_str());
  if (listing == nullptr) return;
  std::vector<std::string> directories;
  while (velfsMoveNext(listing)) {
    char* name = nullptr;
    if (velfsGetName(listing, &name)) std::free(name);
    char* fullName = nullptr;
    if (!velfsGetFullName(listing, &fullName)) continue;
    const std::string full(fullName);
    std::free(fullName);
    bool exists = false;
    velfsIsFileExist(dir, full.c_str(), &exists);
    velfsIsDirectoryExist(dir, full.c_str(), &exists);
    if (velfsIsDirectory(listing)) {
      directories.push_back(full);
    } else if (budget.openedFiles < kMaxOpenedFiles) {
      ++budget.openedFiles;
      ExerciseFile(velfsCreateFileIndir(dir, full.c_str(), static_cast<uint32_t>(full.size() % 6)));
      // The same member through a full path (a ':' in the name would cut it elsewhere).
      if (budget.openedFiles <= 4 && full.find(':') == std::string::npos) {
        ExerciseFile(velfsCreateFile((rootPath + ":" + full).c_str(), 0));
      }
    }
  }
  velfsReset(listing);
  velfsMoveNext(listing);
  velfsCloseEnum(listing);
  for (const std::string& directory : directories) {
    ListRecursively(dir, rootPath, directory, depth + 1, budget);
  }
}

}  // namespace
}  // namespace velfs::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace velfs::fuzz;
  static const FuzzSandbox sandbox("archive");
  const std::string path = sandbox.PathOf("input");
  if (!WriteWholeFile(path, std::string_view(reinterpret_cast<const char*>(data), size))) {
    return 0;
  }
  // Offered as a root only when the archive back-end takes it: anything else would be handed to
  // SQLite, which is the database target's subject.
  if (velfs::OpenArchiveStorage(path, velfs::host::Stat(path)) == nullptr) return 0;
  DirHandle* dir = velfsOpenDir(path.c_str());
  if (dir == nullptr) std::abort();  // the archive back-end took it a moment ago
  Budget budget;
  ListRecursively(dir, path, "", 0, budget);
  bool exists = false;
  velfsIsDirectoryExist(dir, "", &exists);
  velfsIsFileExist(dir, "", &exists);
  velfsDeleteFile(dir, "x");
  velfsBeginTrans(dir);
  velfsCloseDir(dir);
  return 0;
}
