// One large file of a database root, moved in 64 KiB calls, at 16 MiB, 256 MiB and 896 MiB
// (SQLite stores no blob longer than 1,000,000,000 bytes, so 896 MiB stands for "1 GiB"):
// - reads of large-<MiB>.db through velFS outside a transaction (every call its own
//   transaction) and inside one velfsBeginTrans/velfsCommitTrans, against one raw sqlite3_blob
//   handle kept for the whole file;
// - writes into a fresh database: growing velfsWrite calls inside one transaction and outside
//   one, velfsResize to the final size followed by writes in place (outside and inside one),
//   against raw SQLite inserting a zeroblob of the final size and filling it with
//   sqlite3_blob_write in one transaction.
// - single 64 KiB calls outside a transaction at positions of the 256 MiB file: a read, and a
//   write in place of the bytes already there.
// The databases are made here, by raw SQLite in velFS's format, when they are missing from
// $VELFS_BENCH_DATA. Chunk k of every file is one fixed pseudo-random 64 KiB block whose first
// eight bytes hold k; reads are checked chunk by chunk every 16 MiB and written databases read
// back whole, with the timer stopped. Times are real times: the commits wait for the disk.
// A write repetition times one pass after an untimed one: a single pass would also time the
// first touch of the memory and page cache it needs, which on a virtual machine can cost
// several times the pass itself (the other benchmarks time many passes after Google
// Benchmark's own runs that find the iteration count). A read needs no new memory, and a
// repeated read of 16 MiB would come from the processor's cache.
#include <benchmark/benchmark.h>
#include <sqlite3.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "data_set.h"
#include "velfs.h"

namespace velfs::bench {
namespace {

constexpr std::size_t kChunk = 64 * 1024;
constexpr std::size_t kCheckSpan = 16 << 20;  // bytes read between two checks
constexpr const char* kFileName = "big.bin";
constexpr const char* kCreateTable =
    "create table if not exists FileStorage (FileName text, Path text, Content blob, Info blob, "
    "primary key(FileName, Path));";

// The contents: chunk k is Block() with k in its first eight bytes.
const std::vector<unsigned char>& Block() {
  static const std::vector<unsigned char> block = [] {
    std::vector<unsigned char> bytes(kChunk);
    std::mt19937_64 random(65536);
    for (unsigned char& byte : bytes) byte = static_cast<unsigned char>(random());
    return bytes;
  }();
  return block;
}

void FillChunk(unsigned char* chunk, uint64_t k) {
  std::memcpy(chunk, Block().data(), kChunk);
  std::memcpy(chunk, &k, sizeof k);
}

// True when `count` chunks from `first` on hold what FillChunk puts there.
bool ChunksMatch(const unsigned char* chunks, uint64_t first, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const unsigned char* chunk = chunks + i * kChunk;
    const uint64_t k = first + i;
    if (std::memcmp(chunk, &k, sizeof k) != 0 ||
        std::memcmp(chunk + sizeof k, Block().data() + sizeof k, kChunk - sizeof k) != 0) {
      return false;
    }
  }
  return true;
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

// The raw writer: in one transaction, a row of `size` zero bytes and its chunks written through
// one read-write blob handle. True when committed.
bool RawWrite(sqlite3* db, uint64_t size) {
  sqlite3_stmt* insert = nullptr;
  sqlite3_blob* blob = nullptr;
  std::vector<unsigned char> chunk(kChunk);
  bool ok = sqlite3_exec(db, "BEGIN TRANSACTION;", nullptr, nullptr, nullptr) == SQLITE_OK &&
            sqlite3_prepare_v2(db,
                               "INSERT INTO FileStorage (FileName, Path, Content) "
                               "VALUES (?, '', zeroblob(?))",
                               -1, &insert, nullptr) == SQLITE_OK &&
            sqlite3_bind_text(insert, 1, kFileName, -1, SQLITE_STATIC) == SQLITE_OK &&
            sqlite3_bind_int64(insert, 2, static_cast<sqlite3_int64>(size)) == SQLITE_OK &&
            sqlite3_step(insert) == SQLITE_DONE &&
            sqlite3_blob_open(db, "main", "FileStorage", "Content", sqlite3_last_insert_rowid(db),
                              1, &blob) == SQLITE_OK;
  for (uint64_t k = 0; ok && k < size / kChunk; ++k) {
    FillChunk(chunk.data(), k);
    ok = sqlite3_blob_write(blob, chunk.data(), kChunk, static_cast<int>(k * kChunk)) == SQLITE_OK;
  }
  sqlite3_blob_close(blob);
  sqlite3_finalize(insert);
  return sqlite3_exec(db, "COMMIT TRANSACTION;", nullptr, nullptr, nullptr) == SQLITE_OK && ok;
}

// Reads the file's row back through one blob handle; true when it holds exactly the chunks.
bool Verify(sqlite3* db, uint64_t size) {
  sqlite3_stmt* query = nullptr;
  sqlite3_blob* blob = nullptr;
  bool ok = sqlite3_prepare_v2(db, "SELECT rowid FROM FileStorage WHERE FileName=? AND Path=''",
                               -1, &query, nullptr) == SQLITE_OK &&
            sqlite3_bind_text(query, 1, kFileName, -1, SQLITE_STATIC) == SQLITE_OK &&
            sqlite3_step(query) == SQLITE_ROW &&
            sqlite3_blob_open(db, "main", "FileStorage", "Content",
                              sqlite3_column_int64(query, 0), 0, &blob) == SQLITE_OK &&
            static_cast<uint64_t>(sqlite3_blob_bytes(blob)) == size;
  std::vector<unsigned char> span(kCheckSpan);
  for (uint64_t offset = 0; ok && offset < size; offset += kCheckSpan) {
    const auto bytes = static_cast<std::size_t>(std::min<uint64_t>(kCheckSpan, size - offset));
    ok = sqlite3_blob_read(blob, span.data(), static_cast<int>(bytes), static_cast<int>(offset)) ==
             SQLITE_OK &&
         ChunksMatch(span.data(), offset / kChunk, bytes / kChunk);
  }
  sqlite3_blob_close(blob);
  sqlite3_finalize(query);
  return ok;
}

uint64_t Size(const benchmark::State& state) { return static_cast<uint64_t>(state.range(0)) << 20; }

// large-<mebibytes>.db, made when missing (or wrong); empty when it cannot be had.
std::string ReadDatabase(benchmark::State& state, int64_t mebibytes) {
  const uint64_t size = static_cast<uint64_t>(mebibytes) << 20;
  const std::string path = DataPath("large-" + std::to_string(mebibytes) + ".db");
  if (path.empty()) {
    state.SkipWithError("VELFS_BENCH_DATA is not set");
    return {};
  }
  sqlite3* db = OpenRaw(path);
  bool ok = db != nullptr && Verify(db, size);
  if (db != nullptr && !ok) {
    sqlite3_close(db);
    std::remove(path.c_str());
    db = OpenRaw(path);
    ok = db != nullptr && RawWrite(db, size) && Verify(db, size);
  }
  sqlite3_close(db);
  if (!ok) state.SkipWithError(("cannot make " + path).c_str());
  return ok ? path : std::string();
}

// The read loop: per pass, open(), then read(buffer, offset) for every chunk in order, then
// close(). The chunks land in a 16 MiB span checked with the timer stopped whenever it is full.
template <class Open, class Read, class Close>
void RunReads(benchmark::State& state, Open&& open, Read&& read, Close&& close) {
  const uint64_t size = Size(state);
  std::vector<unsigned char> span(kCheckSpan);
  for (auto _ : state) {
    bool ok = open();
    for (uint64_t offset = 0; ok && offset < size; offset += kCheckSpan) {
      const auto chunks =
          static_cast<std::size_t>(std::min<uint64_t>(kCheckSpan, size - offset) / kChunk);
      for (std::size_t i = 0; ok && i < chunks; ++i) {
        ok = read(span.data() + i * kChunk, offset + i * kChunk);
      }
      state.PauseTiming();
      ok = ok && ChunksMatch(span.data(), offset / kChunk, chunks);
      state.ResumeTiming();
    }
    ok = close() && ok;
    if (!ok) return state.SkipWithError("a read failed or delivered wrong bytes");
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

void VelfsRead(benchmark::State& state, bool inTransaction) {
  const std::string path = ReadDatabase(state, state.range(0));
  if (path.empty()) return;
  DirHandle* dir = velfsOpenDir(path.c_str());
  if (dir == nullptr) return state.SkipWithError("velfsOpenDir failed");
  FileHandle* file = nullptr;
  RunReads(
      state,
      [&] {
        file = velfsCreateFileIndir(dir, kFileName, 0);
        return file != nullptr && (!inTransaction || velfsBeginTrans(dir));
      },
      [&](unsigned char* buffer, uint64_t) { return velfsRead(file, buffer, kChunk) == kChunk; },
      [&] {
        const bool committed = !inTransaction || velfsCommitTrans(dir);
        velfsCloseFile(file);
        return committed;
      });
  velfsCloseDir(dir);
}

void SqliteRead(benchmark::State& state) {
  const std::string path = ReadDatabase(state, state.range(0));
  if (path.empty()) return;
  sqlite3* db = OpenRaw(path);
  sqlite3_blob* blob = nullptr;
  RunReads(
      state,
      [&] {
        return sqlite3_blob_open(db, "main", "FileStorage", "Content", 1, 0, &blob) == SQLITE_OK;
      },
      [&](unsigned char* buffer, uint64_t offset) {
        return sqlite3_blob_read(blob, buffer, kChunk, static_cast<int>(offset)) == SQLITE_OK;
      },
      [&] { return sqlite3_blob_close(blob) == SQLITE_OK; });
  sqlite3_close(db);
}

// One call per iteration at `state.range(0)` MiB into large-256.db, outside a transaction: a
// read whose chunk number is checked (and the whole chunk after the loop), or a write of the
// chunk already there, which leaves the file as it was (the whole file is checked after).
void VelfsCallAt(benchmark::State& state, bool write) {
  constexpr int64_t kFileMebibytes = 256;
  const std::string path = ReadDatabase(state, kFileMebibytes);
  if (path.empty()) return;
  const uint64_t k = Size(state) / kChunk;
  const auto offset = static_cast<int32_t>(k * kChunk);
  std::vector<unsigned char> chunk(kChunk);
  FillChunk(chunk.data(), k);
  std::vector<unsigned char> read(kChunk);
  DirHandle* dir = velfsOpenDir(path.c_str());
  FileHandle* file = dir == nullptr ? nullptr : velfsCreateFileIndir(dir, kFileName, write ? 3 : 0);
  bool ok = file != nullptr;
  for (auto _ : state) {
    ok = ok && velfsSeek(file, offset, SEEK_SET) == offset &&
         (write ? velfsWrite(file, chunk.data(), kChunk) == kChunk
                : velfsRead(file, read.data(), kChunk) == kChunk &&
                      std::memcmp(read.data(), &k, sizeof k) == 0);
    if (!ok) break;
  }
  ok = ok && velfsSeek(file, offset, SEEK_SET) == offset &&
       velfsRead(file, read.data(), kChunk) == kChunk && ChunksMatch(read.data(), k, 1);
  velfsCloseFile(file);
  velfsCloseDir(dir);
  if (ok && write) {  // a write that landed elsewhere shows only in the whole file
    sqlite3* db = OpenRaw(path);
    ok = db != nullptr && Verify(db, static_cast<uint64_t>(kFileMebibytes) << 20);
    sqlite3_close(db);
  }
  if (!ok) return state.SkipWithError("a call failed or the file differs");
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kChunk));
}

// The write loop: per pass a fresh database, write(path, size) timed, the row read back with
// the timer stopped.
template <class Write>
void RunWrites(benchmark::State& state, Write&& write) {
  const uint64_t size = Size(state);
  const std::string path = DataPath("large-write.db");
  if (path.empty()) return state.SkipWithError("VELFS_BENCH_DATA is not set");
  const auto pass = [&](bool timed) {
    if (timed) state.PauseTiming();
    std::remove(path.c_str());
    std::remove((path + "-journal").c_str());
    if (timed) state.ResumeTiming();
    const bool written = write(path, size);
    if (timed) state.PauseTiming();
    sqlite3* db = OpenRaw(path);
    const bool ok = written && db != nullptr && Verify(db, size);
    sqlite3_close(db);
    if (timed) state.ResumeTiming();
    return ok;
  };
  constexpr const char* kFailed = "a write failed, or the row differs from what was written";
  if (!pass(false)) return state.SkipWithError(kFailed);
  for (auto _ : state) {
    if (!pass(true)) return state.SkipWithError(kFailed);
  }
  std::remove(path.c_str());
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

void VelfsWrite(benchmark::State& state, bool inTransaction, bool resizeFirst) {
  RunWrites(state, [inTransaction, resizeFirst](const std::string& path, uint64_t size) {
    std::vector<unsigned char> chunk(kChunk);
    DirHandle* dir = velfsOpenDir(path.c_str());
    bool ok = dir != nullptr && (!inTransaction || velfsBeginTrans(dir));
    FileHandle* file = ok ? velfsCreateFileIndir(dir, kFileName, 1) : nullptr;
    ok = file != nullptr && (!resizeFirst || velfsResize(file, size));
    for (uint64_t k = 0; ok && k < size / kChunk; ++k) {
      FillChunk(chunk.data(), k);
      ok = velfsWrite(file, chunk.data(), kChunk) == kChunk;
    }
    velfsCloseFile(file);
    ok = ok && (!inTransaction || velfsCommitTrans(dir));
    velfsCloseDir(dir);
    return ok;
  });
}

void SqliteWrite(benchmark::State& state) {
  RunWrites(state, [](const std::string& path, uint64_t size) {
    sqlite3* db = OpenRaw(path);
    const bool ok = db != nullptr && RawWrite(db, size);
    sqlite3_close(db);
    return ok;
  });
}

// One pass per repetition: a pass of the largest size takes seconds.
void Sizes(benchmark::internal::Benchmark* benchmark, std::initializer_list<int64_t> mebibytes) {
  for (const int64_t size : mebibytes) benchmark->Arg(size);
  benchmark->ArgName("MiB")->Iterations(1)->Repetitions(3)->UseRealTime();
}
void AllSizes(benchmark::internal::Benchmark* benchmark) { Sizes(benchmark, {16, 256, 896}); }

}  // namespace

// Outside a transaction every call walks the row's overflow chain to its position, so the time
// grows with the square of the size: 16 and 256 MiB only, and 16 MiB for growing writes, each of
// which rewrites the whole row.
void SmallerSizes(benchmark::internal::Benchmark* benchmark) { Sizes(benchmark, {16, 256}); }
BENCHMARK_CAPTURE(VelfsRead, outside, false)->Name("db_large_read/velfs")->Apply(SmallerSizes);
BENCHMARK_CAPTURE(VelfsRead, inside, true)
    ->Name("db_large_read/velfs_in_transaction")
    ->Apply(AllSizes);
BENCHMARK(SqliteRead)->Name("db_large_read/sqlite_blob")->Apply(AllSizes);
BENCHMARK_CAPTURE(VelfsWrite, growing, false, false)
    ->Name("db_large_write/velfs")
    ->Apply([](benchmark::internal::Benchmark* b) { Sizes(b, {16}); });
BENCHMARK_CAPTURE(VelfsWrite, in_transaction, true, false)
    ->Name("db_large_write/velfs_in_transaction")
    ->Apply(AllSizes);
BENCHMARK_CAPTURE(VelfsWrite, resized, false, true)
    ->Name("db_large_write/velfs_resized")
    ->Apply(SmallerSizes);
BENCHMARK_CAPTURE(VelfsWrite, resized_in_transaction, true, true)
    ->Name("db_large_write/velfs_resized_in_transaction")
    ->Apply(AllSizes);
BENCHMARK(SqliteWrite)->Name("db_large_write/sqlite_zeroblob")->Apply(AllSizes);

// The cost of one call outside a transaction, by its position in the file.
void Positions(benchmark::internal::Benchmark* benchmark) {
  for (const int64_t mebibytes : {0, 64, 128, 192, 255}) benchmark->Arg(mebibytes);
  benchmark->ArgName("at_MiB")->UseRealTime();
}
BENCHMARK_CAPTURE(VelfsCallAt, read, false)->Name("db_large_call/velfs_read")->Apply(Positions);
BENCHMARK_CAPTURE(VelfsCallAt, write, true)
    ->Name("db_large_call/velfs_write_in_place")
    ->Apply(Positions);

}  // namespace velfs::bench
