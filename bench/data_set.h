// The benchmark data sets and the check of what a benchmark read.
//
// bench/make_data_sets.py writes the data sets into the directory named by VELFS_BENCH_DATA, each
// with a manifest "<set>.manifest": one line per file or member, name, size and CRC-32 (zlib),
// tab-separated. Every byte a read benchmark reads is compared with it; a mismatch fails the
// benchmark (SkipWithError).
#ifndef VELFS_BENCH_DATA_SET_H
#define VELFS_BENCH_DATA_SET_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velfs::bench {

struct ManifestEntry {
  std::string name;  // relative to the data set's root, '/' as separator
  uint64_t size = 0;
  uint32_t crc = 0;
};

// "<data directory>/<relative>", or an empty string when VELFS_BENCH_DATA is not set.
std::string DataPath(std::string_view relative);

// The entries of "<set>.manifest"; empty when the variable is unset or the file is unreadable.
std::vector<ManifestEntry> LoadManifest(std::string_view set);

// Fails the benchmark unless `manifest` was read; answers whether it was.
bool RequireData(benchmark::State& state, const std::vector<ManifestEntry>& manifest);

// zlib's CRC-32 of `size` bytes.
uint32_t Crc32(const void* bytes, std::size_t size);

// 0 .. count-1 in a fixed pseudo-random order (the same for every benchmark).
std::vector<std::size_t> ShuffledOrder(std::size_t count);

// Files read between two checks.
constexpr std::size_t kCheckBatch = 256;

// Room behind the largest file in each slot, so that a read that delivers too much is seen, and
// for the last short read of a streaming loop (64 KiB).
constexpr std::size_t kSlack = 64 * 1024;

// Compares `count` slots of `slotSize` bytes with the manifest's entries order[0 .. count-1]:
// lengths[k] and the CRC-32 of slot k must be the entry's size and CRC-32. Otherwise fails the
// benchmark with the entry's name and answers false.
bool CheckSlots(benchmark::State& state, const std::vector<ManifestEntry>& manifest,
                const std::size_t* order, std::size_t count, const unsigned char* slots,
                std::size_t slotSize, const int64_t* lengths);

// The benchmark loop of every read workload. Each pass reads the manifest's entries in `order`
// (indexes into the manifest) with readOne(entry, slot, capacity), which reads the entry's file
// into `slot` (`capacity` bytes, more than the file holds) and answers the bytes read, or -1 on
// a failure. The reads land in slots of one buffer; every `batch` files the timer is paused
// while the slots are checked against the manifest, so the check costs no measured time.
// Counts files as items and their bytes.
template <class ReadOne>
void RunCheckedReads(benchmark::State& state, const std::vector<ManifestEntry>& manifest,
                     const std::vector<std::size_t>& order, std::size_t batch, ReadOne&& readOne) {
  uint64_t bytes = 0, largest = 0;
  for (const std::size_t index : order) {
    bytes += manifest[index].size;
    largest = std::max(largest, manifest[index].size);
  }
  const std::size_t slotSize = static_cast<std::size_t>(largest) + kSlack;
  batch = std::max<std::size_t>(1, std::min(batch, order.size()));
  std::vector<unsigned char> slots(batch * slotSize);
  std::vector<int64_t> lengths(batch);
  for (auto _ : state) {
    for (std::size_t begin = 0; begin < order.size(); begin += batch) {
      const std::size_t count = std::min(batch, order.size() - begin);
      for (std::size_t k = 0; k < count; ++k) {
        lengths[k] = readOne(manifest[order[begin + k]], slots.data() + k * slotSize, slotSize);
      }
      state.PauseTiming();
      if (!CheckSlots(state, manifest, order.data() + begin, count, slots.data(), slotSize,
                      lengths.data())) {
        return;
      }
      state.ResumeTiming();
    }
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(order.size()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(bytes));
}

}  // namespace velfs::bench

#endif  // VELFS_BENCH_DATA_SET_H
