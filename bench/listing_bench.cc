// Listing workloads: the directory entries/ with N entries, half files and half subdirectories,
// listed whole (every name read) in each kind of root, N = 1,000, 10,000 and 100,000 (65,000
// for the archive, the most below zziplib's limit of 65,535 members). Baselines: the raw SELECT
// of the same rows (database), zzip_readdir over the members (archive), readdir (host
// directory), and PhysicsFS's enumeration of the mounted archive or directory. For the database
// and the archive, "part33"/"part54" build the listing of Part 3.3/5.4 over the same raw rows or
// members (SpecListing): what that listing costs without velFS.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <physfs.h>
#include <sqlite3.h>
#include <zzip/zzip.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "listing_tally.h"
#include "manifest.h"
#include "physfs_session.h"
#include "spec_listing.h"
#include "velfs.h"

namespace velfs::bench {
namespace {

constexpr std::string_view kDirectory = "entries/";

// The benchmark loop shared by every listing: list(tally) lists once into the tally and answers
// false on a failure; every listing must match the expected tally.
template <class List>
void RunListing(benchmark::State& state, std::size_t n, List&& list) {
  const ListingTally expected = ListingTally::Expected(n);
  for (auto _ : state) {
    ListingTally tally;
    if (!list(tally) || !tally.Matches(expected)) {
      state.SkipWithError(("the listing delivered " + std::to_string(tally.entries()) + " of " +
                           std::to_string(expected.entries()) + " expected entries, or others")
                              .c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(n));
}

// A directory's name as the tally takes it: without its trailing '/'.
std::string_view Bare(std::string_view name) {
  if (!name.empty() && name.back() == '/') name.remove_suffix(1);
  return name;
}

// The entry that a member or row below entries/ stands for: a file (no further '/') or the
// subdirectory named by its next segment.
void AddBelow(ListingTally& tally, std::string_view rest) {
  const std::size_t slash = rest.find('/');
  tally.Add(rest.substr(0, slash), slash != std::string_view::npos);
}

bool VelfsList(DirHandle* dir, ListingTally& tally) {
  EnumHandle* listing = velfsCreateEnumIndir(dir, std::string(kDirectory).c_str());
  if (listing == nullptr) return false;
  bool ok = true;
  while (ok && velfsMoveNext(listing)) {
    char* name = nullptr;
    ok = velfsGetName(listing, &name);
    if (ok) tally.Add(Bare(name), velfsIsDirectory(listing));
    std::free(name);
  }
  velfsCloseEnum(listing);
  return ok;
}

void Velfs(benchmark::State& state, const char* root, std::size_t n) {
  const std::string path = DataPath(root);
  if (path.empty()) return state.SkipWithError("VELFS_BENCH_DATA is not set");
  DirHandle* dir = velfsOpenDir(path.c_str());
  if (dir == nullptr) return state.SkipWithError("velfsOpenDir failed");
  RunListing(state, n, [dir](ListingTally& tally) { return VelfsList(dir, tally); });
  velfsCloseDir(dir);
}

// Steps the raw SELECT of the rows below entries/ and hands each row's FileName and Path to
// `row`; false when the query fails.
template <class Row>
bool ForEachRow(sqlite3* db, Row&& row) {
  sqlite3_stmt* query = nullptr;
  if (sqlite3_prepare_v2(db, "SELECT FileName, Path FROM FileStorage WHERE Path LIKE 'entries/%'",
                         -1, &query, nullptr) != SQLITE_OK) {
    return false;
  }
  while (sqlite3_step(query) == SQLITE_ROW) {
    row(std::string_view(reinterpret_cast<const char*>(sqlite3_column_text(query, 0)),
                         static_cast<std::size_t>(sqlite3_column_bytes(query, 0))),
        std::string_view(reinterpret_cast<const char*>(sqlite3_column_text(query, 1)),
                         static_cast<std::size_t>(sqlite3_column_bytes(query, 1))));
  }
  return sqlite3_finalize(query) == SQLITE_OK;
}

template <class List>
void WithDatabase(benchmark::State& state, const char* root, std::size_t n, List&& list) {
  const std::string path = DataPath(root);
  sqlite3* db = nullptr;
  if (path.empty() || sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
      sqlite3_exec(db, "PRAGMA cache_size=400", nullptr, nullptr, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return state.SkipWithError("cannot open the database");
  }
  RunListing(state, n, [db, &list](ListingTally& tally) { return list(db, tally); });
  sqlite3_close(db);
}

void Sqlite(benchmark::State& state, const char* root, std::size_t n) {
  WithDatabase(state, root, n, [](sqlite3* db, ListingTally& tally) {
    return ForEachRow(db, [&tally](std::string_view fileName, std::string_view rowPath) {
      if (rowPath == kDirectory) {
        tally.Add(fileName, false);
      } else {
        AddBelow(tally, rowPath.substr(kDirectory.size()));
      }
    });
  });
}

void SqlitePart33(benchmark::State& state, const char* root, std::size_t n) {
  WithDatabase(state, root, n, [](sqlite3* db, ListingTally& tally) {
    SpecListing listing;
    const bool ok = ForEachRow(db, [&listing](std::string_view fileName, std::string_view rowPath) {
      if (rowPath == kDirectory) {
        listing.AddFile(fileName);
        return;
      }
      const std::string_view rest = rowPath.substr(kDirectory.size());
      const std::size_t slash = rest.find('/');
      if (slash != std::string_view::npos) listing.AddDirectory(rest.substr(0, slash));
    });
    listing.HandOut(tally);
    return ok;
  });
}

// Reads every member of the archive and hands the names below entries/ to `member` (without
// the entries/ prefix).
template <class Member>
void ForEachMember(ZZIP_DIR* dir, Member&& member) {
  zzip_rewinddir(dir);
  while (const ZZIP_DIRENT* entry = zzip_readdir(dir)) {
    const std::string_view name(entry->d_name);
    if (name.size() > kDirectory.size() && name.compare(0, kDirectory.size(), kDirectory) == 0) {
      member(name.substr(kDirectory.size()));
    }
  }
}

template <class List>
void WithArchive(benchmark::State& state, const char* root, std::size_t n, List&& list) {
  const std::string path = DataPath(root);
  ZZIP_DIR* dir = path.empty() ? nullptr : zzip_dir_open(path.c_str(), nullptr);
  if (dir == nullptr) return state.SkipWithError("zzip_dir_open failed");
  RunListing(state, n, [dir, &list](ListingTally& tally) { return list(dir, tally); });
  zzip_dir_close(dir);
}

void Zziplib(benchmark::State& state, const char* root, std::size_t n) {
  WithArchive(state, root, n, [](ZZIP_DIR* dir, ListingTally& tally) {
    ForEachMember(dir, [&tally](std::string_view rest) { AddBelow(tally, rest); });
    return true;
  });
}

void ZziplibPart54(benchmark::State& state, const char* root, std::size_t n) {
  WithArchive(state, root, n, [](ZZIP_DIR* dir, ListingTally& tally) {
    SpecListing listing;
    ForEachMember(dir, [&listing](std::string_view rest) {
      const std::size_t slash = rest.find('/');
      if (slash == std::string_view::npos) {
        listing.AddFile(rest);
      } else {
        listing.AddDirectory(rest.substr(0, slash));
      }
    });
    listing.HandOut(tally);
    return true;
  });
}

void Readdir(benchmark::State& state, const char* root, std::size_t n) {
  const std::string path = DataPath(root);
  if (path.empty()) return state.SkipWithError("VELFS_BENCH_DATA is not set");
  const std::string directory = path + "/" + std::string(kDirectory);
  RunListing(state, n, [&directory](ListingTally& tally) {
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

PHYSFS_EnumerateCallbackResult CountName(void* tally, const char*, const char* name) {
  static_cast<ListingTally*>(tally)->AddName(name);
  return PHYSFS_ENUM_OK;
}

void Physfs(benchmark::State& state, const char* root, std::size_t n) {
  const std::string path = DataPath(root);
  if (path.empty()) return state.SkipWithError("VELFS_BENCH_DATA is not set");
  PhysfsSession physfs(path);
  if (!physfs.ok()) return state.SkipWithError(PhysfsSession::LastError().c_str());
  RunListing(state, n, [](ListingTally& tally) {
    return PHYSFS_enumerate("entries", &CountName, &tally) != 0;
  });
}

using Lister = void (*)(benchmark::State&, const char*, std::size_t);

// Registers "list_<kind>_<n>/<name>" for every size of the kind.
void RegisterListings(const char* kind, const char* extension,
                      std::initializer_list<std::size_t> sizes,
                      std::initializer_list<std::pair<const char*, Lister>> listers) {
  for (const std::size_t n : sizes) {
    const std::string root = "list-" + std::to_string(n) + extension;
    for (const auto& [name, lister] : listers) {
      const std::string title = std::string("list_") + kind + "_" + std::to_string(n) + "/" + name;
      benchmark::RegisterBenchmark(title.c_str(), [lister = lister, root,
                                                   n](benchmark::State& state) {
        lister(state, root.c_str(), n);
      })->Unit(benchmark::kMillisecond);
    }
  }
}

const bool kRegistered = [] {
  RegisterListings("db", ".db", {1'000, 10'000, 100'000},
                   {{"velfs", &Velfs}, {"sqlite", &Sqlite}, {"part33", &SqlitePart33}});
  RegisterListings(
      "zip", ".zip", {1'000, 10'000, 65'000},
      {{"velfs", &Velfs}, {"zziplib", &Zziplib}, {"part54", &ZziplibPart54}, {"physfs", &Physfs}});
  RegisterListings("native", "", {1'000, 10'000, 100'000},
                   {{"velfs", &Velfs}, {"readdir", &Readdir}, {"physfs", &Physfs}});
  return true;
}();

}  // namespace
}  // namespace velfs::bench
