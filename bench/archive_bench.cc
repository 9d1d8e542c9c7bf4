// Archive-root workloads, velFS against zziplib used directly (zzip_dir_open with its own file
// I/O, zzip_file_open by exact name), PhysicsFS with the archive mounted, libzip, and memcpy:
// - streaming one 64 MiB member with 64 KiB reads (stream.zip: deflated.bin and stored.bin);
// - open, read whole and close 10,000 deflated members of 4,096 bytes by name in a fixed random
//   order (members.zip);
// - 100,000 existence tests against the 10,000-member archive, half of the names present.
#include <benchmark/benchmark.h>
#include <physfs.h>
#include <zip.h>
#include <zzip/zzip.h>

#include <cstring>
#include <string>
#include <vector>

#include "manifest.h"
#include "physfs_session.h"
#include "read_check.h"
#include "velfs.h"

namespace velfs::bench {
namespace {

constexpr std::size_t kChunk = 64 * 1024;
constexpr std::size_t kBatch = 256;
constexpr std::size_t kExistenceTests = 100'000;

// With `chunk` 0, one read(buffer, count) as large as the slot (a whole-file read). Otherwise
// reads of `chunk` bytes into consecutive parts of `slot` until one answers 0. The bytes read,
// or -1 when a read fails or more would arrive than fits.
template <class Read>
int64_t ReadToEnd(Read&& read, unsigned char* slot, std::size_t capacity, std::size_t chunk) {
  if (chunk == 0) return read(slot, capacity);
  std::size_t total = 0;
  for (;;) {
    if (total + chunk > capacity) return -1;
    const int64_t got = read(slot + total, chunk);
    if (got < 0) return -1;
    if (got == 0) return static_cast<int64_t>(total);
    total += static_cast<std::size_t>(got);
  }
}

std::vector<std::size_t> OneEntry(const Manifest& manifest, const char* name) {
  const ManifestEntry* entry = manifest.Find(name);
  if (entry == nullptr) return {};
  return {static_cast<std::size_t>(entry - manifest.entries().data())};
}

// The readers of one member. Each opens the member by name, reads it (ReadToEnd) and closes it.
int64_t VelfsReadMember(DirHandle* dir, const ManifestEntry& entry, unsigned char* slot,
                        std::size_t capacity, std::size_t chunk) {
  FileHandle* file = velfsCreateFileIndir(dir, entry.name.c_str(), 0);
  if (file == nullptr) return -1;
  const int64_t total = ReadToEnd(
      [file](unsigned char* buffer, std::size_t count) {
        return static_cast<int64_t>(velfsRead(file, buffer, count));
      },
      slot, capacity, chunk);
  velfsCloseFile(file);
  return total;
}

int64_t ZzipReadMember(ZZIP_DIR* dir, const ManifestEntry& entry, unsigned char* slot,
                       std::size_t capacity, std::size_t chunk) {
  ZZIP_FILE* file = zzip_file_open(dir, entry.name.c_str(), 0);
  if (file == nullptr) return -1;
  const int64_t total = ReadToEnd(
      [file](unsigned char* buffer, std::size_t count) {
        return static_cast<int64_t>(zzip_file_read(file, buffer, count));
      },
      slot, capacity, chunk);
  zzip_file_close(file);
  return total;
}

int64_t PhysfsReadMember(const ManifestEntry& entry, unsigned char* slot, std::size_t capacity,
                         std::size_t chunk) {
  PHYSFS_File* file = PHYSFS_openRead(entry.name.c_str());
  if (file == nullptr) return -1;
  const int64_t total = ReadToEnd(
      [file](unsigned char* buffer, std::size_t count) {
        return static_cast<int64_t>(PHYSFS_readBytes(file, buffer, count));
      },
      slot, capacity, chunk);
  PHYSFS_close(file);
  return total;
}

int64_t LibzipReadMember(zip_t* archive, const ManifestEntry& entry, unsigned char* slot,
                         std::size_t capacity, std::size_t chunk) {
  zip_file_t* file = zip_fopen(archive, entry.name.c_str(), 0);
  if (file == nullptr) return -1;
  const int64_t total = ReadToEnd(
      [file](unsigned char* buffer, std::size_t count) {
        return static_cast<int64_t>(zip_fread(file, buffer, count));
      },
      slot, capacity, chunk);
  zip_fclose(file);
  return total;
}

// The read loop shared by every archive benchmark: `set` names the manifest and the archive,
// `member` one member (streaming, 64 KiB reads) or null for all members in random order (one
// whole-file read each).
template <class ReadMember>
void RunReads(benchmark::State& state, const char* set, const char* member,
              ReadMember&& readMember) {
  const Manifest manifest = Manifest::Load(set);
  if (!RequireData(state, manifest)) return;
  std::vector<std::size_t> order =
      member != nullptr ? OneEntry(manifest, member) : ShuffledOrder(manifest.size());
  if (order.empty()) return state.SkipWithError("member missing from the manifest");
  ReadCheck check(manifest, std::move(order), member != nullptr ? 1 : kBatch);
  for (auto _ : state) {
    const bool ok = check.Pass(
        state, [&](const ManifestEntry& entry, unsigned char* slot, std::size_t capacity) {
          return readMember(entry, slot, capacity, member != nullptr ? kChunk : 0);
        });
    if (!ok) break;
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(check.files()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(check.bytes()));
}

std::string ArchivePath(const char* set) { return DataPath(std::string(set) + ".zip"); }

void Velfs(benchmark::State& state, const char* set, const char* member) {
  DirHandle* dir = velfsOpenDir(ArchivePath(set).c_str());
  if (dir == nullptr) return state.SkipWithError("velfsOpenDir failed");
  RunReads(state, set, member,
           [dir](const ManifestEntry& entry, unsigned char* slot, std::size_t capacity,
                 std::size_t chunk) { return VelfsReadMember(dir, entry, slot, capacity, chunk); });
  velfsCloseDir(dir);
}

void Zziplib(benchmark::State& state, const char* set, const char* member) {
  ZZIP_DIR* dir = zzip_dir_open(ArchivePath(set).c_str(), nullptr);
  if (dir == nullptr) return state.SkipWithError("zzip_dir_open failed");
  RunReads(state, set, member,
           [dir](const ManifestEntry& entry, unsigned char* slot, std::size_t capacity,
                 std::size_t chunk) { return ZzipReadMember(dir, entry, slot, capacity, chunk); });
  zzip_dir_close(dir);
}

void Physfs(benchmark::State& state, const char* set, const char* member) {
  PhysfsSession physfs(ArchivePath(set));
  if (!physfs.ok()) return state.SkipWithError(PhysfsSession::LastError().c_str());
  RunReads(state, set, member, &PhysfsReadMember);
}

void Libzip(benchmark::State& state, const char* set, const char* member) {
  int error = 0;
  zip_t* archive = zip_open(ArchivePath(set).c_str(), ZIP_RDONLY, &error);
  if (archive == nullptr) return state.SkipWithError("zip_open failed");
  RunReads(state, set, member,
           [archive](const ManifestEntry& entry, unsigned char* slot, std::size_t capacity,
                     std::size_t chunk) {
             return LibzipReadMember(archive, entry, slot, capacity, chunk);
           });
  zip_discard(archive);
}

// The physical bound: the stored member's bytes, loaded once and checked against the manifest,
// copied with memcpy in 64 KiB pieces.
void Memcpy(benchmark::State& state, const char* set, const char* member) {
  const Manifest manifest = Manifest::Load(set);
  if (!RequireData(state, manifest)) return;
  const ManifestEntry* entry = manifest.Find(member);
  ZZIP_DIR* dir = zzip_dir_open(ArchivePath(set).c_str(), nullptr);
  if (entry == nullptr || dir == nullptr) {
    if (dir != nullptr) zzip_dir_close(dir);
    return state.SkipWithError("cannot load the member");
  }
  std::vector<unsigned char> source(entry->size + kChunk);
  const int64_t loaded = ZzipReadMember(dir, *entry, source.data(), source.size(), kChunk);
  zzip_dir_close(dir);
  if (loaded != static_cast<int64_t>(entry->size) ||
      Crc32(source.data(), entry->size) != entry->crc) {
    return state.SkipWithError("cannot load the member");
  }
  RunReads(
      state, set, member,
      [&source](const ManifestEntry& target, unsigned char* slot, std::size_t, std::size_t chunk) {
        for (std::size_t offset = 0; offset < target.size; offset += chunk) {
          std::memcpy(slot + offset, source.data() + offset,
                      std::min<std::size_t>(chunk, target.size - offset));
        }
        return static_cast<int64_t>(target.size);
      });
}

// The names of the existence test: each member name five times and as many names that are not
// in the archive (the same names with 'q' for 'm'), in a fixed random order.
std::vector<std::string> ExistenceNames(const Manifest& manifest, std::size_t& present) {
  std::vector<std::string> names;
  present = 0;
  for (std::size_t i = 0; i < kExistenceTests; ++i) {
    std::string name = manifest[i % manifest.size()].name;
    if (i % 2 == 1) {
      name[name.rfind('/') + 1] = 'q';
    } else {
      ++present;
    }
    names.push_back(std::move(name));
  }
  std::vector<std::string> shuffled;
  for (std::size_t index : ShuffledOrder(names.size())) shuffled.push_back(names[index]);
  return shuffled;
}

template <class Exists>
void RunExistence(benchmark::State& state, Exists&& exists) {
  const Manifest manifest = Manifest::Load("members");
  if (!RequireData(state, manifest)) return;
  std::size_t expected = 0;
  const std::vector<std::string> names = ExistenceNames(manifest, expected);
  for (auto _ : state) {
    std::size_t found = 0;
    bool ok = true;
    for (const std::string& name : names) {
      const int answer = exists(name.c_str());
      ok = ok && answer >= 0;
      found += answer == 1 ? 1 : 0;
    }
    if (!ok || found != expected) {
      state.SkipWithError(("existence tests found " + std::to_string(found) + " of " +
                           std::to_string(expected) + " names")
                              .c_str());
      break;
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(names.size()));
}

void BM_Exists_Velfs(benchmark::State& state) {
  DirHandle* dir = velfsOpenDir(ArchivePath("members").c_str());
  if (dir == nullptr) return state.SkipWithError("velfsOpenDir failed");
  bool warm = false;
  velfsIsFileExist(dir, "", &warm);  // the first test builds the name index (Part 5.2)
  RunExistence(state, [dir](const char* name) {
    bool exists = false;
    if (!velfsIsFileExist(dir, name, &exists)) return -1;
    return exists ? 1 : 0;
  });
  velfsCloseDir(dir);
}

void BM_Exists_Physfs(benchmark::State& state) {
  PhysfsSession physfs(ArchivePath("members"));
  if (!physfs.ok()) return state.SkipWithError(PhysfsSession::LastError().c_str());
  RunExistence(state, [](const char* name) { return PHYSFS_exists(name) != 0 ? 1 : 0; });
}

constexpr const char* kStream = "stream";
constexpr const char* kDeflated = "deflated.bin";
constexpr const char* kStored = "stored.bin";
constexpr const char* kMembers = "members";

}  // namespace

BENCHMARK_CAPTURE(Velfs, deflated, kStream, kDeflated)
    ->Name("zip_stream_deflated_64m/velfs")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Zziplib, deflated, kStream, kDeflated)
    ->Name("zip_stream_deflated_64m/zziplib")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Physfs, deflated, kStream, kDeflated)
    ->Name("zip_stream_deflated_64m/physfs")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Libzip, deflated, kStream, kDeflated)
    ->Name("zip_stream_deflated_64m/libzip")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Velfs, stored, kStream, kStored)
    ->Name("zip_stream_stored_64m/velfs")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Memcpy, stored, kStream, kStored)
    ->Name("zip_stream_stored_64m/memcpy")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Physfs, stored, kStream, kStored)
    ->Name("zip_stream_stored_64m/physfs")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Velfs, members, kMembers, nullptr)
    ->Name("zip_members_10k/velfs")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Zziplib, members, kMembers, nullptr)
    ->Name("zip_members_10k/zziplib")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Physfs, members, kMembers, nullptr)
    ->Name("zip_members_10k/physfs")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Libzip, members, kMembers, nullptr)
    ->Name("zip_members_10k/libzip")
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Exists_Velfs)->Name("zip_exists_100k/velfs")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Exists_Physfs)->Name("zip_exists_100k/physfs")->Unit(benchmark::kMillisecond);

}  // namespace velfs::bench
