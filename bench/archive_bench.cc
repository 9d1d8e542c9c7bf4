// Archive roots, velFS against zziplib used directly (zzip_dir_open with its own file I/O,
// zzip_file_open by exact name), libzip, and memcpy:
// - streaming one 64 MiB member with 64 KiB reads (stream.zip: deflated.bin and stored.bin);
// - open, read whole and close 10,000 deflated members of 4,096 bytes by name in a fixed random
//   order (members.zip).
// The archive stays open across the passes; each pass opens, reads and closes the members.
#include <benchmark/benchmark.h>
#include <zip.h>
#include <zzip/zzip.h>

#include <cstring>
#include <string>
#include <vector>

#include "data_set.h"
#include "velfs.h"

namespace velfs::bench {
namespace {

constexpr std::size_t kChunk = 64 * 1024;

// Opens a member with open(name), reads it with read(file, buffer, count) and closes it with
// close(file). With `chunk` 0 one read as large as the slot; otherwise reads of `chunk` bytes
// into consecutive parts of the slot until one answers 0. The bytes read, or -1 on a failure or
// when more would arrive than fits.
template <class Open, class Read, class Close>
int64_t ReadMember(Open&& open, Read&& read, Close&& close, const ManifestEntry& entry,
                   unsigned char* slot, std::size_t capacity, std::size_t chunk) {
  auto* file = open(entry.name.c_str());
  if (file == nullptr) return -1;
  int64_t total = 0;
  if (chunk == 0) {
    total = read(file, slot, capacity);
  } else {
    for (;;) {
      const bool fits = static_cast<std::size_t>(total) + chunk <= capacity;
      const int64_t got = fits ? read(file, slot + total, chunk) : -1;
      if (got <= 0) {
        total = got < 0 ? -1 : total;
        break;
      }
      total += got;
    }
  }
  close(file);
  return total;
}

// The read loop of every archive benchmark: `set` names the manifest and the archive, `member`
// one member (streamed in 64 KiB reads) or null for all members in random order (one whole-file
// read each). readMember(entry, slot, capacity, chunk) as ReadMember.
template <class Reader>
void RunReads(benchmark::State& state, const char* set, const char* member, Reader&& readMember) {
  const std::vector<ManifestEntry> manifest = LoadManifest(set);
  if (!RequireData(state, manifest)) return;
  std::vector<std::size_t> order;
  for (std::size_t i = 0; member != nullptr && i < manifest.size(); ++i) {
    if (manifest[i].name == member) order.push_back(i);
  }
  if (member == nullptr) order = ShuffledOrder(manifest.size());
  if (order.empty()) return state.SkipWithError("member missing from the manifest");
  RunCheckedReads(state, manifest, order, member != nullptr ? 1 : kCheckBatch,
                  [&](const ManifestEntry& entry, unsigned char* slot, std::size_t capacity) {
                    return readMember(entry, slot, capacity, member != nullptr ? kChunk : 0);
                  });
}

std::string ArchivePath(const char* set) { return DataPath(std::string(set) + ".zip"); }

int64_t VelfsReadMember(DirHandle* dir, const ManifestEntry& entry, unsigned char* slot,
                        std::size_t capacity, std::size_t chunk) {
  return ReadMember([dir](const char* name) { return velfsCreateFileIndir(dir, name, 0); },
                    [](FileHandle* file, unsigned char* buffer, std::size_t count) {
                      return static_cast<int64_t>(velfsRead(file, buffer, count));
                    },
                    &velfsCloseFile, entry, slot, capacity, chunk);
}

int64_t ZzipReadMember(ZZIP_DIR* dir, const ManifestEntry& entry, unsigned char* slot,
                       std::size_t capacity, std::size_t chunk) {
  return ReadMember([dir](const char* name) { return zzip_file_open(dir, name, 0); },
                    [](ZZIP_FILE* file, unsigned char* buffer, std::size_t count) {
                      return static_cast<int64_t>(zzip_file_read(file, buffer, count));
                    },
                    &zzip_file_close, entry, slot, capacity, chunk);
}

void Velfs(benchmark::State& state, const char* set, const char* member) {
  DirHandle* dir = velfsOpenDir(ArchivePath(set).c_str());
  if (dir == nullptr) return state.SkipWithError("velfsOpenDir failed");
  RunReads(state, set, member, [dir](auto&&... args) { return VelfsReadMember(dir, args...); });
  velfsCloseDir(dir);
}

void Zziplib(benchmark::State& state, const char* set, const char* member) {
  ZZIP_DIR* dir = zzip_dir_open(ArchivePath(set).c_str(), nullptr);
  if (dir == nullptr) return state.SkipWithError("zzip_dir_open failed");
  RunReads(state, set, member, [dir](auto&&... args) { return ZzipReadMember(dir, args...); });
  zzip_dir_close(dir);
}

void Libzip(benchmark::State& state, const char* set, const char* member) {
  int error = 0;
  zip_t* archive = zip_open(ArchivePath(set).c_str(), ZIP_RDONLY, &error);
  if (archive == nullptr) return state.SkipWithError("zip_open failed");
  RunReads(state, set, member, [archive](auto&&... args) {
    return ReadMember([archive](const char* name) { return zip_fopen(archive, name, 0); },
                      [](zip_file_t* file, unsigned char* buffer, std::size_t count) {
                        return static_cast<int64_t>(zip_fread(file, buffer, count));
                      },
                      &zip_fclose, args...);
  });
  zip_discard(archive);
}

// The physical bound: the stored member's bytes, loaded once through zziplib and checked
// against the manifest, copied with memcpy in 64 KiB pieces.
void Memcpy(benchmark::State& state, const char* set, const char* member) {
  const std::vector<ManifestEntry> manifest = LoadManifest(set);
  std::vector<unsigned char> source;
  ZZIP_DIR* dir = zzip_dir_open(ArchivePath(set).c_str(), nullptr);
  for (const ManifestEntry& entry : manifest) {
    if (dir == nullptr || entry.name != member) continue;
    source.resize(entry.size + kChunk);
    if (ZzipReadMember(dir, entry, source.data(), source.size(), kChunk) !=
            static_cast<int64_t>(entry.size) ||
        Crc32(source.data(), entry.size) != entry.crc) {
      source.clear();
    }
  }
  if (dir != nullptr) zzip_dir_close(dir);
  if (source.empty()) return state.SkipWithError("cannot load the member");
  RunReads(state, set, member,
           [&source](const ManifestEntry& entry, unsigned char* slot, std::size_t,
                     std::size_t chunk) {
             for (std::size_t offset = 0; offset < entry.size; offset += chunk) {
               std::memcpy(slot + offset, source.data() + offset,
                           std::min<std::size_t>(chunk, entry.size - offset));
             }
             return static_cast<int64_t>(entry.size);
           });
}

constexpr const char* kStream = "stream";
constexpr const char* kDeflated = "deflated.bin";
constexpr const char* kStored = "stored.bin";
constexpr const char* kMembers = "members";

}  // namespace

BENCHMARK_CAPTURE(Velfs, deflated, kStream, kDeflated)->Name("zip_stream_deflated_64m/velfs");
BENCHMARK_CAPTURE(Zziplib, deflated, kStream, kDeflated)->Name("zip_stream_deflated_64m/zziplib");
BENCHMARK_CAPTURE(Libzip, deflated, kStream, kDeflated)->Name("zip_stream_deflated_64m/libzip");
BENCHMARK_CAPTURE(Velfs, stored, kStream, kStored)->Name("zip_stream_stored_64m/velfs");
BENCHMARK_CAPTURE(Memcpy, stored, kStream, kStored)->Name("zip_stream_stored_64m/memcpy");
BENCHMARK_CAPTURE(Zziplib, stored, kStream, kStored)->Name("zip_stream_stored_64m/zziplib");
BENCHMARK_CAPTURE(Velfs, members, kMembers, nullptr)->Name("zip_members_10k/velfs");
BENCHMARK_CAPTURE(Zziplib, members, kMembers, nullptr)->Name("zip_members_10k/zziplib");
BENCHMARK_CAPTURE(Libzip, members, kMembers, nullptr)->Name("zip_members_10k/libzip");

}  // namespace velfs::bench
