// Listings: the directory entries/ with N entries, half files and half subdirectories, listed
// whole (every name read) in each kind of root, N = 1,000, 10,000 and 100,000 (65,000 for the
// archive, the most below zziplib's limit of 65,535 members). Baselines: the raw SELECT of the
// same rows (database), zzip_readdir over the members (archive) and readdir (host directory).
// For the database and the archive, "sqlite_built_listing" and "zziplib_built_listing" build
// the listing the way velFS does over the same raw rows or members: the whole listing kept in
// memory when it is created, each subdirectory once, every name handed out as a malloc'd copy.
// They show what such a listing costs without velFS. Every listing is checked: number of
// entries, number of directories and a hash of the names.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <sqlite3.h>
#include <zzip/zzip.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "data_set.h"
#include "velfs.h"

namespace velfs::bench {
namespace {

constexpr std::string_view kDirectory = "entries/";

// What a listing delivered, independent of the order of its entries: the number of entries,
// how many of them are directories, and the sum of a 64-bit FNV-1a hash of every name
// (directory names without their trailing '/').
struct Tally {
  std::size_t entries = 0;
  std::size_t directories = 0;
  uint64_t hashSum = 0;

  void Add(std::string_view name, bool isDirectory) {
    if (isDirectory && !name.empty() && name.back() == '/') name.remove_suffix(1);
    uint64_t hash = 14695981039346656037ull;
    for (const char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    ++entries;
    directories += isDirectory ? 1 : 0;
    hashSum += hash;
  }
  bool operator==(const Tally& other) const {
    return entries == other.entries && directories == other.directories &&
           hashSum == other.hashSum;
  }
};

// The entry that a member or row below entries/ stands for: a file (no further '/') or the
// subdirectory named by its next segment.
void AddBelow(Tally& tally, std::string_view rest) {
  const std::size_t slash = rest.find('/');
  tally.Add(rest.substr(0, slash), slash != std::string_view::npos);
}

// A listing built as velFS builds one: kept whole in memory, directory names once through a set,
// each name handed out as a malloc'd copy that the reader frees.
class BuiltListing {
 public:
  void AddFile(std::string_view name) { entries_.push_back({false, std::string(name)}); }
  void AddDirectory(std::string_view name) {
    std::string withSlash = std::string(name) + '/';
    if (directories_.insert(withSlash).second) entries_.push_back({true, std::move(withSlash)});
  }
  void HandOut(Tally& tally) const {
    for (const auto& [isDirectory, name] : entries_) {
      auto* copy = static_cast<char*>(std::malloc(name.size() + 1));
      if (copy == nullptr) return;
      std::memcpy(copy, name.c_str(), name.size() + 1);
      tally.Add(std::string_view(copy, name.size()), isDirectory);
      std::free(copy);
    }
  }

 private:
  std::vector<std::pair<bool, std::string>> entries_;
  std::unordered_set<std::string> directories_;
};

// The loop of every listing: list(tally) lists once and answers false on a failure; every
// listing must match the data set's: files f0 .. f(n/2 - 1), directories s0 .. s(n/2 - 1).
template <class List>
void RunListing(benchmark::State& state, std::size_t n, List&& list) {
  Tally expected;
  for (std::size_t k = 0; k < n / 2; ++k) {
    expected.Add("f" + std::to_string(k), false);
    expected.Add("s" + std::to_string(k), true);
  }
  for (auto _ : state) {
    Tally tally;
    if (!list(tally) || !(tally == expected)) {
      state.SkipWithError(("the listing delivered " + std::to_string(tally.entries) + " of " +
                           std::to_string(expected.entries) + " expected entries, or others")
                              .c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}

void Velfs(benchmark::State& state, const std::string& path, std::size_t n, bool) {
  DirHandle* dir = velfsOpenDir(path.c_str());
  if (dir == nullptr) return state.SkipWithError("velfsOpenDir failed");
  RunListing(state, n, [dir](Tally& tally) {
    EnumHandle* listing = velfsCreateEnumIndir(dir, std::string(kDirectory).c_str());
    bool ok = listing != nullptr;
    while (ok && velfsMoveNext(listing)) {
      char* name = nullptr;
      ok = velfsGetName(listing, &name);
      if (ok) tally.Add(name, velfsIsDirectory(listing));
      std::free(name);
    }
    velfsCloseEnum(listing);
    return ok;
  });
  velfsCloseDir(dir);
}

// The raw SELECT of the rows below entries/, each pass on the same connection. With `build` the
// rows go into a BuiltListing first; otherwise straight into the tally.
void Sqlite(benchmark::State& state, const std::string& path, std::size_t n, bool build) {
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
      sqlite3_exec(db, "PRAGMA cache_size=400", nullptr, nullptr, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return state.SkipWithError("cannot open the database");
  }
  RunListing(state, n, [db, build](Tally& tally) {
    sqlite3_stmt* query = nullptr;
    if (sqlite3_prepare_v2(db, "SELECT FileName, Path FROM FileStorage WHERE Path LIKE 'entries/%'",
                           -1, &query, nullptr) != SQLITE_OK) {
      return false;
    }
    BuiltListing listing;
    while (sqlite3_step(query) == SQLITE_ROW) {
      const auto text = [query](int column) {
        return std::string_view(reinterpret_cast<const char*>(sqlite3_column_text(query, column)),
                                static_cast<std::size_t>(sqlite3_column_bytes(query, column)));
      };
      const std::string_view fileName = text(0), rest = text(1).substr(kDirectory.size());
      if (build && rest.empty()) {
        listing.AddFile(fileName);
      } else if (build) {
        listing.AddDirectory(rest.substr(0, rest.find('/')));
      } else if (rest.empty()) {
        tally.Add(fileName, false);
      } else {
        AddBelow(tally, rest);
      }
    }
    listing.HandOut(tally);
    return sqlite3_finalize(query) == SQLITE_OK;
  });
  sqlite3_close(db);
}

// zzip_readdir over every member of the archive, each pass on the same ZZIP_DIR; the names below
// entries/ count. With `build` they go into a BuiltListing first; otherwise straight into the
// tally.
void Zziplib(benchmark::State& state, const std::string& path, std::size_t n, bool build) {
  ZZIP_DIR* dir = zzip_dir_open(path.c_str(), nullptr);
  if (dir == nullptr) return state.SkipWithError("zzip_dir_open failed");
  RunListing(state, n, [dir, build](Tally& tally) {
    BuiltListing listing;
    zzip_rewinddir(dir);
    while (const ZZIP_DIRENT* entry = zzip_readdir(dir)) {
      const std::string_view name(entry->d_name);
      if (name.size() <= kDirectory.size() || name.substr(0, kDirectory.size()) != kDirectory) {
        continue;
      }
      const std::string_view rest = name.substr(kDirectory.size());
      const std::size_t slash = rest.find('/');
      if (!build) {
        AddBelow(tally, rest);
      } else if (slash == std::string_view::npos) {
        listing.AddFile(rest);
      } else {
        listing.AddDirectory(rest.substr(0, slash));
      }
    }
    listing.HandOut(tally);
    return true;
  });
  zzip_dir_close(dir);
}

void Readdir(benchmark::State& state, const std::string& path, std::size_t n, bool) {
  const std::string directory = path + "/" + std::string(kDirectory);
  RunListing(state, n, [&directory](Tally& tally) {
    DIR* listing = ::opendir(directory.c_str());
    if (listing == nullptr) return false;
    while (const dirent* entry = ::readdir(listing)) {
      if (std::strcmp(entry->d_name, ".") == 0 || std::strcmp(entry->d_name, "..") == 0) continue;
      tally.Add(entry->d_name, entry->d_type == DT_DIR);
    }
    ::closedir(listing);
    return true;
  });
}

using Lister = void (*)(benchmark::State&, const std::string&, std::size_t, bool);

// Registers "list_<kind>_<n>/<name>" for every size, over the data set list-<n><extension>.
void RegisterListings(const char* kind, const char* extension,
                      std::initializer_list<std::size_t> sizes, const char* raw, Lister lister) {
  const std::pair<std::string, bool> variants[] = {
      {"velfs", false}, {raw, false}, {std::string(raw) + "_built_listing", true}};
  for (const std::size_t n : sizes) {
    const std::string root = "list-" + std::to_string(n) + extension;
    for (const auto& [name, build] : variants) {
      if (build && lister == &Readdir) continue;
      const std::string title = std::string("list_") + kind + "_" + std::to_string(n) + "/" + name;
      const Lister run = name == "velfs" ? &Velfs : lister;
      benchmark::RegisterBenchmark(title.c_str(), [run, root, n, build = build](benchmark::State& s) {
        const std::string path = DataPath(root);
        if (path.empty()) return s.SkipWithError("VELFS_BENCH_DATA is not set");
        run(s, path, n, build);
      });
    }
  }
}

const bool kRegistered = [] {
  RegisterListings("db", ".db", {1'000, 10'000, 100'000}, "sqlite", &Sqlite);
  RegisterListings("zip", ".zip", {1'000, 10'000, 65'000}, "zziplib", &Zziplib);
  RegisterListings("native", "", {1'000, 10'000, 100'000}, "readdir", &Readdir);
  return true;
}();

}  // namespace
}  // namespace velfs::bench
