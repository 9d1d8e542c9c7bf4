// Manifests, data paths and the comparison of what was read with the manifest.
#include "data_set.h"

#include <zlib.h>

#include <cstdlib>
#include <fstream>
#include <numeric>
#include <random>
#include <sstream>

namespace velfs::bench {
std::string DataPath(std::string_view relative) {
  const char* root = std::getenv("VELFS_BENCH_DATA");
  if (root == nullptr || *root == '\0') return {};
  return std::string(root) + "/" + std::string(relative);
}

std::vector<ManifestEntry> LoadManifest(std::string_view set) {
  std::vector<ManifestEntry> manifest;
  const std::string path = DataPath(std::string(set) + ".manifest");
  if (path.empty()) return manifest;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    ManifestEntry entry;
    std::string crc;
    if (!std::getline(fields, entry.name, '\t') || !(fields >> entry.size >> crc)) return {};
    entry.crc = static_cast<uint32_t>(std::stoul(crc, nullptr, 16));
    manifest.push_back(std::move(entry));
  }
  return manifest;
}

bool RequireData(benchmark::State& state, const std::vector<ManifestEntry>& manifest) {
  if (!manifest.empty()) return true;
  state.SkipWithError("no data set: run scripts/bench.sh (VELFS_BENCH_DATA names the data)");
  return false;
}

uint32_t Crc32(const void* bytes, std::size_t size) {
  uLong crc = crc32(0L, Z_NULL, 0);
  const auto* next = static_cast<const Bytef*>(bytes);
  while (size > 0) {  // zlib's crc32 takes a 32-bit length
    const auto chunk = static_cast<uInt>(std::min<std::size_t>(size, 1u << 30));
    crc = crc32(crc, next, chunk);
    next += chunk;
    size -= chunk;
  }
  return static_cast<uint32_t>(crc);
}

std::vector<std::size_t> ShuffledOrder(std::size_t count) {
  std::vector<std::size_t> order(count);
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::mt19937_64 random(20240607);
  std::shuffle(order.begin(), order.end(), random);
  return order;
}

bool CheckSlots(benchmark::State& state, const std::vector<ManifestEntry>& manifest,
                const std::size_t* order, std::size_t count, const unsigned char* slots,
                std::size_t slotSize, const int64_t* lengths) {
  for (std::size_t k = 0; k < count; ++k) {
    const ManifestEntry& entry = manifest[order[k]];
    if (lengths[k] != static_cast<int64_t>(entry.size) ||
        Crc32(slots + k * slotSize, static_cast<std::size_t>(entry.size)) != entry.crc) {
      const std::string message = "read back wrong bytes: " + entry.name + " (" +
                                  std::to_string(lengths[k]) + " of " +
                                  std::to_string(entry.size) + " bytes)";
      state.SkipWithError(message.c_str());
      return false;
    }
  }
  return true;
}

}  // namespace velfs::bench
