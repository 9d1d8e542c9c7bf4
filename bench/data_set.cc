// Manifests, data paths and the slot buffer of ReadCheck.
#include "data_set.h"

#include <zlib.h>

#include <cstdlib>
#include <fstream>
#include <numeric>
#include <random>
#include <sstream>

namespace velfs::bench {
namespace {

// Room behind the largest file, so that a read that delivers too much is seen, and for the
// last short read of a streaming loop (64 KiB).
constexpr std::size_t kSlack = 64 * 1024;

}  // namespace

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

ReadCheck::ReadCheck(const std::vector<ManifestEntry>& manifest, std::vector<std::size_t> order,
                     std::size_t batch)
    : manifest_(manifest), order_(std::move(order)), batch_(std::max<std::size_t>(batch, 1)) {
  uint64_t largest = 0;
  for (std::size_t index : order_) {
    largest = std::max(largest, manifest_[index].size);
    bytes_ += manifest_[index].size;
  }
  slotSize_ = static_cast<std::size_t>(largest) + kSlack;
  const std::size_t slots = std::min(batch_, order_.size());
  buffer_.assign(slots * slotSize_, 0);
  lengths_.assign(slots, 0);
}

bool ReadCheck::Check(benchmark::State& state, std::size_t begin, std::size_t end) {
  for (std::size_t k = begin; k < end; ++k) {
    const ManifestEntry& entry = manifest_[order_[k]];
    const int64_t length = lengths_[k - begin];
    if (length != static_cast<int64_t>(entry.size) ||
        Crc32(Slot(k - begin), static_cast<std::size_t>(entry.size)) != entry.crc) {
      const std::string message = "read back wrong bytes: " + entry.name + " (" +
                                  std::to_string(length) + " of " + std::to_string(entry.size) +
                                  " bytes)";
      state.SkipWithError(message.c_str());
      return false;
    }
  }
  return true;
}

void ReadCheck::SetCounters(benchmark::State& state) const {
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(order_.size()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes_));
}

}  // namespace velfs::bench
