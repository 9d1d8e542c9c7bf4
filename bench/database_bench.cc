// Database-root workloads. Reading 10,000 files of 10,240 bytes by name, one open each (velFS
// through velfsCreateFileIndir/velfsRead/velfsCloseFile; raw SQLite with one prepared rowid
// query and sqlite3_blob_read; the same files as host files with fopen/fread), and writing
// 10,000 files of 4,096 bytes in one transaction (velFS; raw SQLite with one prepared INSERT).
// Raw SQLite opens the same file with velFS's page cache ("PRAGMA cache_size=400", Part 3.1).
// "part32" runs, with raw SQLite, the statements that Part 3.2 prescribes for the same work:
// per open and read, "BEGIN TRANSACTION;", the rowid SELECT formatted with %Q and prepared anew,
// "COMMIT TRANSACTION;" and one read-only blob; per new file written, that SELECT (finding no
// row) and the INSERT, each formatted and prepared anew. It measures what the Part's statement
// sequence costs in itself.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "manifest.h"
#include "read_check.h"
#include "velfs.h"

namespace velfs::bench {
namespace {

constexpr std::size_t kBatch = 256;
constexpr std::size_t kWriteFiles = 10'000;
constexpr std::size_t kWriteSize = 4'096;
constexpr const char* kSelectRowId = "SELECT rowid FROM FileStorage WHERE FileName=? AND Path=?";
constexpr const char* kInsert =
    "INSERT INTO FileStorage (FileName, Path, Content) VALUES (?, ?, ?)";
constexpr const char* kCreateTable =
    "create table if not exists FileStorage (FileName text, Path text, Content blob, Info blob, "
    "primary key(FileName, Path));";

// The row key of Part 3.1: the directory part with its '/', and the last component.
void SplitKey(std::string_view name, std::string_view& fileName, std::string_view& path) {
  const std::size_t slash = name.rfind('/');
  path = slash == std::string_view::npos ? std::string_view() : name.substr(0, slash + 1);
  fileName = slash == std::string_view::npos ? name : name.substr(slash + 1);
}

sqlite3* OpenRaw(const std::string& path) {
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK ||
      sqlite3_exec(db, "PRAGMA page_size=8192", nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_exec(db, "PRAGMA cache_size=400", nullptr, nullptr, nullptr) != SQLITE_OK ||
      sqlite3_exec(db, kCreateTable, nullptr, nullptr, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return nullptr;
  }
  return db;
}

// Reads the Content of row `rowId` whole into `slot`: its length, or -1 when there is no such
// row or it does not fit.
int64_t ReadContent(sqlite3* db, sqlite3_int64 rowId, unsigned char* slot, std::size_t capacity) {
  sqlite3_blob* blob = nullptr;
  if (rowId == 0 ||
      sqlite3_blob_open(db, "main", "FileStorage", "Content", rowId, 0, &blob) != SQLITE_OK) {
    sqlite3_blob_close(blob);
    return -1;
  }
  const int length = sqlite3_blob_bytes(blob);
  const bool read = static_cast<std::size_t>(length) <= capacity &&
                    sqlite3_blob_read(blob, slot, length, 0) == SQLITE_OK;
  sqlite3_blob_close(blob);
  return read ? length : -1;
}

void BM_DbRead_Velfs(benchmark::State& state) { ReadFilesThroughVelfs(state, DataPath("files.db")); }

void BM_DbRead_Sqlite(benchmark::State& state) {
  const Manifest manifest = Manifest::Load("files");
  if (!RequireData(state, manifest)) return;
  sqlite3* db = OpenRaw(DataPath("files.db"));
  if (db == nullptr) return state.SkipWithError("sqlite3_open failed");
  sqlite3_stmt* query = nullptr;
  if (sqlite3_prepare_v2(db, kSelectRowId, -1, &query, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return state.SkipWithError("prepare failed");
  }
  ReadCheck check(manifest, ShuffledOrder(manifest.size()), kBatch);
  for (auto _ : state) {
    const bool ok = check.Pass(
        state,
        [db, query](const ManifestEntry& entry, unsigned char* slot,
                    std::size_t capacity) -> int64_t {
          std::string_view fileName, path;
          SplitKey(entry.name, fileName, path);
          sqlite3_bind_text(query, 1, fileName.data(), static_cast<int>(fileName.size()),
                            SQLITE_STATIC);
          sqlite3_bind_text(query, 2, path.data(), static_cast<int>(path.size()), SQLITE_STATIC);
          const sqlite3_int64 rowId =
              sqlite3_step(query) == SQLITE_ROW ? sqlite3_column_int64(query, 0) : 0;
          sqlite3_reset(query);
          return ReadContent(db, rowId, slot, capacity);
        });
    if (!ok) break;
  }
  sqlite3_finalize(query);
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(check.files()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(check.bytes()));
}

// Part 3.2's LookupRowId for a key: the formatted SELECT prepared anew; 0 when no row.
sqlite3_int64 LookupRowId(sqlite3* db, std::string_view name) {
  std::string_view fileName, path;
  SplitKey(name, fileName, path);
  const std::string fileNameText(fileName), pathText(path);
  char* sql = sqlite3_mprintf("SELECT rowid from %s where FileName=%Q and Path=%Q;", "FileStorage",
                              fileNameText.c_str(), pathText.c_str());
  sqlite3_stmt* query = nullptr;
  sqlite3_int64 rowId = 0;
  if (sqlite3_prepare_v2(db, sql, -1, &query, nullptr) == SQLITE_OK &&
      sqlite3_step(query) == SQLITE_ROW) {
    rowId = sqlite3_column_int64(query, 0);
  }
  sqlite3_finalize(query);
  sqlite3_free(sql);
  return rowId;
}

void BM_DbRead_Part32(benchmark::State& state) {
  const Manifest manifest = Manifest::Load("files");
  if (!RequireData(state, manifest)) return;
  sqlite3* db = OpenRaw(DataPath("files.db"));
  if (db == nullptr) return state.SkipWithError("sqlite3_open failed");
  ReadCheck check(manifest, ShuffledOrder(manifest.size()), kBatch);
  for (auto _ : state) {
    const bool ok = check.Pass(
        state,
        [db](const ManifestEntry& entry, unsigned char* slot, std::size_t capacity) -> int64_t {
          sqlite3_exec(db, "BEGIN TRANSACTION;", nullptr, nullptr, nullptr);
          const sqlite3_int64 rowId = LookupRowId(db, entry.name);
          sqlite3_exec(db, "COMMIT TRANSACTION;", nullptr, nullptr, nullptr);
          return ReadContent(db, rowId, slot, capacity);
        });
    if (!ok) break;
  }
  sqlite3_close(db);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(check.files()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(check.bytes()));
}

void BM_DbRead_Fread(benchmark::State& state) {
  const Manifest manifest = Manifest::Load("files");
  if (!RequireData(state, manifest)) return;
  const std::string root = DataPath("files/");
  std::string path;
  ReadCheck check(manifest, ShuffledOrder(manifest.size()), kBatch);
  for (auto _ : state) {
    const bool ok = check.Pass(state,
                               [&root, &path](const ManifestEntry& entry, unsigned char* slot,
                                              std::size_t capacity) -> int64_t {
                                 path.assign(root).append(entry.name);
                                 std::FILE* file = std::fopen(path.c_str(), "rb");
                                 if (file == nullptr) return -1;
                                 const std::size_t read = std::fread(slot, 1, capacity, file);
                                 std::fclose(file);
                                 return static_cast<int64_t>(read);
                               });
    if (!ok) break;
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(check.files()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(check.bytes()));
}

// The files of the write workload (MakeWriteSet): names w00/w0000.bin ..., 4,096 pseudo-random
// bytes each.
struct WriteSet {
  std::vector<std::string> names;
  std::vector<unsigned char> bytes;  // file i is bytes[i * kWriteSize, (i + 1) * kWriteSize)

  const unsigned char* File(std::size_t i) const { return bytes.data() + i * kWriteSize; }
};

WriteSet MakeWriteSet() {
  WriteSet set;
  set.bytes.resize(kWriteFiles * kWriteSize);
  std::mt19937_64 random(4096);
  for (std::size_t i = 0; i < set.bytes.size(); i += 8) {
    const uint64_t word = random();
    for (std::size_t b = 0; b < 8; ++b)
      set.bytes[i + b] = static_cast<unsigned char>(word >> (8 * b));
  }
  char name[32];
  for (std::size_t i = 0; i < kWriteFiles; ++i) {
    std::snprintf(name, sizeof name, "w%02zu/w%04zu.bin", i / 100, i);
    set.names.emplace_back(name);
  }
  return set;
}

// Reads every row of the database back with raw SQLite: exactly the set's files, each with its
// bytes. Answers an empty string, or what is wrong.
std::string VerifyWritten(const std::string& dbPath, const WriteSet& set) {
  sqlite3* db = OpenRaw(dbPath);
  if (db == nullptr) return "cannot open the written database";
  sqlite3_stmt* query = nullptr;
  std::string error;
  if (sqlite3_prepare_v2(db, "SELECT Path || FileName, Content FROM FileStorage", -1, &query,
                         nullptr) != SQLITE_OK) {
    error = "cannot read the written database";
  }
  std::vector<bool> seen(kWriteFiles, false);
  std::size_t rows = 0;
  while (error.empty() && sqlite3_step(query) == SQLITE_ROW) {
    ++rows;
    const std::string name(reinterpret_cast<const char*>(sqlite3_column_text(query, 0)));
    std::size_t index = kWriteFiles;
    if (name.size() == 13) index = std::stoul(name.substr(5, 4));
    if (index >= kWriteFiles || set.names[index] != name || seen[index] ||
        sqlite3_column_bytes(query, 1) != static_cast<int>(kWriteSize) ||
        Crc32(sqlite3_column_blob(query, 1), kWriteSize) != Crc32(set.File(index), kWriteSize)) {
      error = "wrong row " + name;
    } else {
      seen[index] = true;
    }
  }
  if (error.empty() && rows != kWriteFiles) error = std::to_string(rows) + " rows written";
  sqlite3_finalize(query);
  sqlite3_close(db);
  return error;
}

// The end of a write pass, timer stopped: true when the pass succeeded (`ok`) and the database at
// `path` holds `set` exactly; otherwise the benchmark is stopped with `failure` or the mismatch.
bool PassHolds(benchmark::State& state, bool ok, const std::string& path, const WriteSet& set,
               const char* failure) {
  const std::string error = ok ? VerifyWritten(path, set) : failure;
  if (error.empty()) return true;
  state.SkipWithError(error.c_str());
  return false;
}

void SetWriteCounters(benchmark::State& state) {
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kWriteFiles));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kWriteFiles * kWriteSize));
}

// A fresh database path for one pass: the file and its journal are removed first.
std::string FreshDatabase(const char* name) {
  const std::string path = DataPath(name);
  std::remove(path.c_str());
  std::remove((path + "-journal").c_str());
  return path;
}

void BM_DbWrite_Velfs(benchmark::State& state) {
  if (DataPath("").empty()) return state.SkipWithError("VELFS_BENCH_DATA is not set");
  const WriteSet set = MakeWriteSet();
  for (auto _ : state) {
    state.PauseTiming();
    const std::string path = FreshDatabase("write-velfs.db");
    DirHandle* dir = velfsOpenDir(path.c_str());
    if (dir == nullptr) {
      state.SkipWithError("velfsOpenDir failed");
      break;
    }
    state.ResumeTiming();
    bool ok = velfsBeginTrans(dir);
    for (std::size_t i = 0; ok && i < kWriteFiles; ++i) {
      FileHandle* file = velfsCreateFileIndir(dir, set.names[i].c_str(), 1);
      ok = file != nullptr && velfsWrite(file, set.File(i), kWriteSize) == kWriteSize;
      velfsCloseFile(file);
    }
    ok = velfsCommitTrans(dir) && ok;
    state.PauseTiming();
    velfsCloseDir(dir);
    if (!PassHolds(state, ok, path, set, "a write or the commit failed")) break;
    state.ResumeTiming();
  }
  SetWriteCounters(state);
}

// The raw write loop, into a fresh database per pass: prepare(db) before the timer starts,
// then insert(db, i) for every file (true on success) between one BEGIN and one COMMIT, then
// finish() with the timer stopped.
template <class Prepare, class Insert, class Finish>
void RunRawWrite(benchmark::State& state, const WriteSet& set, const char* name, Prepare&& prepare,
                 Insert&& insert, Finish&& finish) {
  for (auto _ : state) {
    state.PauseTiming();
    const std::string path = FreshDatabase(name);
    sqlite3* db = OpenRaw(path);
    if (db == nullptr || !prepare(db)) {
      finish();
      sqlite3_close(db);
      state.SkipWithError("cannot prepare the database");
      break;
    }
    state.ResumeTiming();
    bool ok = sqlite3_exec(db, "BEGIN TRANSACTION;", nullptr, nullptr, nullptr) == SQLITE_OK;
    for (std::size_t i = 0; ok && i < kWriteFiles; ++i) ok = insert(db, i);
    ok = sqlite3_exec(db, "COMMIT TRANSACTION;", nullptr, nullptr, nullptr) == SQLITE_OK && ok;
    state.PauseTiming();
    finish();
    sqlite3_close(db);
    if (!PassHolds(state, ok, path, set, "an insert or the commit failed")) break;
    state.ResumeTiming();
  }
  SetWriteCounters(state);
}

// One INSERT prepared once per database and reused for every file.
void BM_DbWrite_Sqlite(benchmark::State& state) {
  if (DataPath("").empty()) return state.SkipWithError("VELFS_BENCH_DATA is not set");
  const WriteSet set = MakeWriteSet();
  sqlite3_stmt* insert = nullptr;
  RunRawWrite(
      state, set, "write-sqlite.db",
      [&insert](sqlite3* db) {
        return sqlite3_prepare_v2(db, kInsert, -1, &insert, nullptr) == SQLITE_OK;
      },
      [&insert, &set](sqlite3*, std::size_t i) {
        std::string_view fileName, dirPath;
        SplitKey(set.names[i], fileName, dirPath);
        sqlite3_bind_text(insert, 1, fileName.data(), static_cast<int>(fileName.size()),
                          SQLITE_STATIC);
        sqlite3_bind_text(insert, 2, dirPath.data(), static_cast<int>(dirPath.size()),
                          SQLITE_STATIC);
        sqlite3_bind_blob(insert, 3, set.File(i), static_cast<int>(kWriteSize), SQLITE_STATIC);
        const bool done = sqlite3_step(insert) == SQLITE_DONE;
        sqlite3_reset(insert);
        return done;
      },
      [&insert] {
        sqlite3_finalize(insert);
        insert = nullptr;
      });
}

// Part 3.2's statements for a new file: the rowid SELECT (no row) and the INSERT, each
// formatted and prepared anew.
void BM_DbWrite_Part32(benchmark::State& state) {
  if (DataPath("").empty()) return state.SkipWithError("VELFS_BENCH_DATA is not set");
  const WriteSet set = MakeWriteSet();
  RunRawWrite(
      state, set, "write-part32.db", [](sqlite3*) { return true; },
      [&set](sqlite3* db, std::size_t i) {
        if (LookupRowId(db, set.names[i]) != 0) return false;
        std::string_view fileName, dirPath;
        SplitKey(set.names[i], fileName, dirPath);
        const std::string fileNameText(fileName), pathText(dirPath);
        char* sql = sqlite3_mprintf("INSERT INTO %s (FileName, Path, Content) VALUES (?, ?, ?);",
                                    "FileStorage");
        sqlite3_stmt* insert = nullptr;
        bool done =
            sqlite3_prepare_v2(db, sql, -1, &insert, nullptr) == SQLITE_OK &&
            sqlite3_bind_text(insert, 1, fileNameText.c_str(), -1, SQLITE_STATIC) == SQLITE_OK &&
            sqlite3_bind_text(insert, 2, pathText.c_str(), -1, SQLITE_STATIC) == SQLITE_OK &&
            sqlite3_bind_blob(insert, 3, set.File(i), static_cast<int>(kWriteSize),
                              SQLITE_STATIC) == SQLITE_OK;
        done = done && sqlite3_step(insert) == SQLITE_DONE;
        sqlite3_finalize(insert);
        sqlite3_free(sql);
        return done;
      },
      [] {});
}

}  // namespace

BENCHMARK(BM_DbRead_Velfs)->Name("db_read_10k/velfs")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DbRead_Sqlite)->Name("db_read_10k/sqlite")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DbRead_Part32)->Name("db_read_10k/part32")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DbRead_Fread)->Name("host_read_10k/fread")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DbWrite_Velfs)
    ->Name("db_write_10k/velfs")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DbWrite_Sqlite)
    ->Name("db_write_10k/sqlite")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DbWrite_Part32)
    ->Name("db_write_10k/part32")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace velfs::bench
