// Many small files. Reading 10,000 files of 10,240 bytes by name, one open each, through velFS
// (the database root files.db and the host directory files/), raw SQLite (files.db) and
// fopen/fread (files/); writing 10,000 files of 4,096 bytes in one transaction into a fresh
// database through velFS and raw SQLite. Raw SQLite uses velFS's page cache ("PRAGMA
// cache_size=400") and runs twice: with one prepared statement reused for every file ("sqlite"),
// and with every statement formatted and prepared per call ("sqlite_prepared_per_call": a read
// is "BEGIN TRANSACTION;", the rowid SELECT formatted with %Q, "COMMIT TRANSACTION;" and one
// read-only blob; a new file is that SELECT, finding no row, and the INSERT). Every file read is
// checked against the manifest; every written database is read back row by row.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "data_set.h"
#include "velfs.h"

namespace velfs::bench {
namespace {

constexpr std::size_t kWriteFiles = 10'000;
constexpr std::size_t kWriteSize = 4'096;
constexpr const char* kSelectRowId = "SELECT rowid FROM FileStorage WHERE FileName=? AND Path=?";
constexpr const char* kInsert =
    "INSERT INTO FileStorage (FileName, Path, Content) VALUES (?, ?, ?)";
constexpr const char* kCreateTable =
    "create table if not exists FileStorage (FileName text, Path text, Content blob, Info blob, "
    "primary key(FileName, Path));";

// The row key of a file: the directory part with its '/' (Path), and the last component.
void SplitKey(std::string_view name, std::string& fileName, std::string& path) {
  const std::size_t slash = name.rfind('/');
  path = slash == std::string_view::npos ? std::string() : std::string(name.substr(0, slash + 1));
  fileName = std::string(slash == std::string_view::npos ? name : name.substr(slash + 1));
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

// The rowid of `name`'s row through a SELECT formatted and prepared for this call; 0 when none.
sqlite3_int64 LookupRowIdPreparedPerCall(sqlite3* db, std::string_view name) {
  std::string fileName, path;
  SplitKey(name, fileName, path);
  char* sql = sqlite3_mprintf("SELECT rowid from %s where FileName=%Q and Path=%Q;", "FileStorage",
                              fileName.c_str(), path.c_str());
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

// The read loop of every read benchmark over the manifest "files", in one shuffled order.
template <class ReadOne>
void RunReads(benchmark::State& state, ReadOne&& readOne) {
  const std::vector<ManifestEntry> manifest = LoadManifest("files");
  if (!RequireData(state, manifest)) return;
  RunCheckedReads(state, manifest, ShuffledOrder(manifest.size()), kCheckBatch, readOne);
}

// velfsCreateFileIndir in mode 0, one velfsRead of the whole file, velfsCloseFile.
void VelfsRead(benchmark::State& state, const char* root) {
  DirHandle* dir = velfsOpenDir(DataPath(root).c_str());
  if (dir == nullptr) return state.SkipWithError("velfsOpenDir failed");
  RunReads(state, [dir](const ManifestEntry& entry, unsigned char* slot, std::size_t capacity) {
    FileHandle* file = velfsCreateFileIndir(dir, entry.name.c_str(), 0);
    if (file == nullptr) return int64_t{-1};
    const uint64_t read = velfsRead(file, slot, capacity);
    velfsCloseFile(file);
    return static_cast<int64_t>(read);
  });
  velfsCloseDir(dir);
}

void SqliteRead(benchmark::State& state, bool preparedPerCall) {
  sqlite3* db = OpenRaw(DataPath("files.db"));
  sqlite3_stmt* query = nullptr;
  if (db == nullptr || sqlite3_prepare_v2(db, kSelectRowId, -1, &query, nullptr) != SQLITE_OK) {
    sqlite3_close(db);
    return state.SkipWithError("cannot open files.db");
  }
  std::string fileName, path;
  RunReads(state, [&](const ManifestEntry& entry, unsigned char* slot, std::size_t capacity) {
    sqlite3_int64 rowId = 0;
    if (preparedPerCall) {
      sqlite3_exec(db, "BEGIN TRANSACTION;", nullptr, nullptr, nullptr);
      rowId = LookupRowIdPreparedPerCall(db, entry.name);
      sqlite3_exec(db, "COMMIT TRANSACTION;", nullptr, nullptr, nullptr);
    } else {
      SplitKey(entry.name, fileName, path);
      sqlite3_bind_text(query, 1, fileName.c_str(), -1, SQLITE_STATIC);
      sqlite3_bind_text(query, 2, path.c_str(), -1, SQLITE_STATIC);
      rowId = sqlite3_step(query) == SQLITE_ROW ? sqlite3_column_int64(query, 0) : 0;
      sqlite3_reset(query);
    }
    return ReadContent(db, rowId, slot, capacity);
  });
  sqlite3_finalize(query);
  sqlite3_close(db);
}

void FreadRead(benchmark::State& state) {
  const std::string root = DataPath("files/");
  std::string path;
  RunReads(state, [&](const ManifestEntry& entry, unsigned char* slot, std::size_t capacity) {
    path.assign(root).append(entry.name);
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (file == nullptr) return int64_t{-1};
    const std::size_t read = std::fread(slot, 1, capacity, file);
    std::fclose(file);
    return static_cast<int64_t>(read);
  });
}

// The files of the write workload: names w00/w0000.bin ..., 4,096 pseudo-random bytes each.
struct WriteSet {
  std::vector<std::string> names;
  std::vector<unsigned char> bytes;  // file i is bytes[i * kWriteSize, (i + 1) * kWriteSize)

  const unsigned char* File(std::size_t i) const { return bytes.data() + i * kWriteSize; }
};

WriteSet MakeWriteSet() {
  WriteSet set;
  set.bytes.resize(kWriteFiles * kWriteSize);
  std::mt19937_64 random(4096);
  for (unsigned char& byte : set.bytes) byte = static_cast<unsigned char>(random());
  char name[32];
  for (std::size_t i = 0; i < kWriteFiles; ++i) {
    std::snprintf(name, sizeof name, "w%02zu/w%04zu.bin", i / 100, i);
    set.names.emplace_back(name);
  }
  return set;
}

// Reads every row of the database back with raw SQLite, in key order: exactly the set's files
// (whose names are in that order), each with its bytes. An empty string, or what is wrong.
std::string VerifyWritten(const std::string& dbPath, const WriteSet& set) {
  sqlite3* db = OpenRaw(dbPath);
  sqlite3_stmt* query = nullptr;
  const char* sql = "SELECT Path || FileName, Content FROM FileStorage ORDER BY 1";
  std::size_t rows = 0;
  bool ok = db != nullptr && sqlite3_prepare_v2(db, sql, -1, &query, nullptr) == SQLITE_OK;
  while (ok && sqlite3_step(query) == SQLITE_ROW) {
    ok = rows < kWriteFiles &&
         set.names[rows] == reinterpret_cast<const char*>(sqlite3_column_text(query, 0)) &&
         sqlite3_column_bytes(query, 1) == static_cast<int>(kWriteSize) &&
         Crc32(sqlite3_column_blob(query, 1), kWriteSize) == Crc32(set.File(rows), kWriteSize);
    ++rows;
  }
  sqlite3_finalize(query);
  sqlite3_close(db);
  if (ok && rows == kWriteFiles) return {};
  return "the written database differs from the files written, at row " + std::to_string(rows);
}

// The write loop: per pass a fresh database `name` (file and journal removed), write(path) with
// the timer running (true on success), then the database read back with the timer stopped.
template <class Write>
void RunWrites(benchmark::State& state, const char* name, Write&& write) {
  const std::string path = DataPath(name);
  if (path.empty()) return state.SkipWithError("VELFS_BENCH_DATA is not set");
  const WriteSet set = MakeWriteSet();
  for (auto _ : state) {
    state.PauseTiming();
    std::remove(path.c_str());
    std::remove((path + "-journal").c_str());
    state.ResumeTiming();
    const bool ok = write(path, set);
    state.PauseTiming();
    const std::string error = ok ? VerifyWritten(path, set) : "a write or the commit failed";
    if (!error.empty()) {
      state.SkipWithError(error.c_str());
      break;
    }
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(kWriteFiles));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kWriteFiles * kWriteSize));
}

// velfsBeginTrans, per file velfsCreateFileIndir in mode 1, one velfsWrite, velfsCloseFile;
// velfsCommitTrans. Opening and closing the root are timed too.
void VelfsWrite(benchmark::State& state) {
  RunWrites(state, "write-velfs.db", [](const std::string& path, const WriteSet& set) {
    DirHandle* dir = velfsOpenDir(path.c_str());
    bool ok = dir != nullptr && velfsBeginTrans(dir);
    for (std::size_t i = 0; ok && i < kWriteFiles; ++i) {
      FileHandle* file = velfsCreateFileIndir(dir, set.names[i].c_str(), 1);
      ok = file != nullptr && velfsWrite(file, set.File(i), kWriteSize) == kWriteSize;
      velfsCloseFile(file);
    }
    ok = dir != nullptr && velfsCommitTrans(dir) && ok;
    velfsCloseDir(dir);
    return ok;
  });
}

// Binds file i's key and bytes to `insert` and steps it; true when the row was inserted.
bool InsertFile(sqlite3_stmt* insert, const WriteSet& set, std::size_t i) {
  std::string fileName, path;
  SplitKey(set.names[i], fileName, path);
  const bool done =
      sqlite3_bind_text(insert, 1, fileName.c_str(), -1, SQLITE_STATIC) == SQLITE_OK &&
      sqlite3_bind_text(insert, 2, path.c_str(), -1, SQLITE_STATIC) == SQLITE_OK &&
      sqlite3_bind_blob(insert, 3, set.File(i), kWriteSize, SQLITE_STATIC) == SQLITE_OK &&
      sqlite3_step(insert) == SQLITE_DONE;
  sqlite3_reset(insert);
  return done;
}

// One INSERT per file between one BEGIN and one COMMIT, prepared once per database or, with
// `preparedPerCall`, formatted and prepared per file after a rowid SELECT that finds no row.
void SqliteWrite(benchmark::State& state, bool preparedPerCall) {
  const char* name = preparedPerCall ? "write-sqlite-per-call.db" : "write-sqlite.db";
  RunWrites(state, name, [preparedPerCall](const std::string& path, const WriteSet& set) {
    sqlite3* db = OpenRaw(path);
    sqlite3_stmt* insert = nullptr;
    bool ok = db != nullptr &&
              sqlite3_exec(db, "BEGIN TRANSACTION;", nullptr, nullptr, nullptr) == SQLITE_OK;
    for (std::size_t i = 0; ok && i < kWriteFiles; ++i) {
      if (preparedPerCall) {
        char* sql = sqlite3_mprintf("INSERT INTO %s (FileName, Path, Content) VALUES (?, ?, ?);",
                                    "FileStorage");
        ok = LookupRowIdPreparedPerCall(db, set.names[i]) == 0 &&
             sqlite3_prepare_v2(db, sql, -1, &insert, nullptr) == SQLITE_OK &&
             InsertFile(insert, set, i);
        sqlite3_finalize(insert);
        insert = nullptr;
        sqlite3_free(sql);
      } else {
        ok = (insert != nullptr ||
              sqlite3_prepare_v2(db, kInsert, -1, &insert, nullptr) == SQLITE_OK) &&
             InsertFile(insert, set, i);
      }
    }
    sqlite3_finalize(insert);
    ok = db != nullptr &&
         sqlite3_exec(db, "COMMIT TRANSACTION;", nullptr, nullptr, nullptr) == SQLITE_OK && ok;
    sqlite3_close(db);
    return ok;
  });
}

}  // namespace

BENCHMARK_CAPTURE(VelfsRead, db, "files.db")->Name("db_read_10k/velfs");
BENCHMARK_CAPTURE(SqliteRead, reused, false)->Name("db_read_10k/sqlite");
BENCHMARK_CAPTURE(SqliteRead, per_call, true)->Name("db_read_10k/sqlite_prepared_per_call");
BENCHMARK_CAPTURE(VelfsRead, native, "files")->Name("native_read_10k/velfs");
BENCHMARK(FreadRead)->Name("host_read_10k/fread");
// Writes are timed in real time: the commit waits for the disk.
BENCHMARK(VelfsWrite)->Name("db_write_10k/velfs")->UseRealTime();
BENCHMARK_CAPTURE(SqliteWrite, reused, false)->Name("db_write_10k/sqlite")->UseRealTime();
BENCHMARK_CAPTURE(SqliteWrite, per_call, true)
    ->Name("db_write_10k/sqlite_prepared_per_call")
    ->UseRealTime();

}  // namespace velfs::bench
