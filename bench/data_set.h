// The benchmark data sets and the check of what a benchmark read.
//
// bench/make_data_sets.py writes the data sets into the directory named by VELFS_BENCH_DATA, each
// with a manifest "<set>.manifest": one line per file or member, name, size and CRC-32 (zlib),
// tab-separated. ReadCheck runs one pass of "read these files" inside a benchmark loop: the reads
// land in slots of one buffer, and every `batch` files the timer is paused while each slot's
// length and CRC-32 are compared with the manifest, so the check costs no measured time. A
// mismatch fails the benchmark (SkipWithError).
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

class ReadCheck {
 public:
  // Reads the manifest's entries in `order` (indexes into the manifest), checking every `batch`.
  ReadCheck(const std::vector<ManifestEntry>& manifest, std::vector<std::size_t> order,
            std::size_t batch = kCheckBatch);

  // One pass. readOne(entry, slot, capacity) reads the entry's file into `slot` (`capacity`
  // bytes, more than the file holds) and answers the bytes read, or -1 on a failure. Answers
  // false after failing the benchmark; the caller then leaves its loop.
  template <class ReadOne>
  bool Pass(benchmark::State& state, ReadOne&& readOne) {
    for (std::size_t begin = 0; begin < order_.size(); begin += batch_) {
      const std::size_t end = std::min(order_.size(), begin + batch_);
      for (std::size_t k = begin; k < end; ++k) {
        lengths_[k - begin] = readOne(manifest_[order_[k]], Slot(k - begin), slotSize_);
      }
      state.PauseTiming();
      if (!Check(state, begin, end)) return false;
      state.ResumeTiming();
    }
    return true;
  }

  // Sets the items (files) and bytes processed over all iterations.
  void SetCounters(benchmark::State& state) const;

 private:
  unsigned char* Slot(std::size_t index) { return buffer_.data() + index * slotSize_; }
  bool Check(benchmark::State& state, std::size_t begin, std::size_t end);

  const std::vector<ManifestEntry>& manifest_;
  std::vector<std::size_t> order_;
  std::size_t batch_;
  std::size_t slotSize_ = 0;
  uint64_t bytes_ = 0;  // per pass
  std::vector<unsigned char> buffer_;
  std::vector<int64_t> lengths_;
};

}  // namespace velfs::bench

#endif  // VELFS_BENCH_DATA_SET_H
