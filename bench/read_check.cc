// ReadCheck: the slot buffer and the comparison with the manifest.
#include "read_check.h"

#include <numeric>
#include <random>
#include <string>

#include "velfs.h"

namespace velfs::bench {
namespace {

// Room behind the largest file, so that a read that delivers too much is seen, and for the
// last short read of a streaming loop (64 KiB).
constexpr std::size_t kSlack = 64 * 1024;

// Files read between two checks (the timer is paused for each check).
constexpr std::size_t kBatch = 256;

}  // namespace

ReadCheck::ReadCheck(const Manifest& manifest, std::vector<std::size_t> order, std::size_t batch)
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

std::vector<std::size_t> ShuffledOrder(std::size_t count) {
  std::vector<std::size_t> order(count);
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::mt19937_64 random(20240607);
  std::shuffle(order.begin(), order.end(), random);
  return order;
}

bool RequireData(benchmark::State& state, const Manifest& manifest) {
  if (!manifest.empty()) return true;
  state.SkipWithError("no data set: run scripts/bench.sh (VELFS_BENCH_DATA names the data)");
  return false;
}

void ReadFilesThroughVelfs(benchmark::State& state, const std::string& root) {
  const Manifest manifest = Manifest::Load("files");
  if (!RequireData(state, manifest)) return;
  DirHandle* dir = velfsOpenDir(root.c_str());
  if (dir == nullptr) return state.SkipWithError("velfsOpenDir failed");
  ReadCheck check(manifest, ShuffledOrder(manifest.size()), kBatch);
  for (auto _ : state) {
    const bool ok = check.Pass(
        state,
        [dir](const ManifestEntry& entry, unsigned char* slot, std::size_t capacity) -> int64_t {
          FileHandle* file = velfsCreateFileIndir(dir, entry.name.c_str(), 0);
          if (file == nullptr) return -1;
          const uint64_t read = velfsRead(file, slot, capacity);
          velfsCloseFile(file);
          return static_cast<int64_t>(read);
        });
    if (!ok) break;
  }
  velfsCloseDir(dir);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(check.files()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(check.bytes()));
}

}  // namespace velfs::bench
