// ReadCheck: one pass of "read these files" inside a benchmark loop, with proof that every file
// came back whole and right. The reads land in slots of one buffer; every `batch` files the timer
// is paused while each slot's length and CRC-32 are compared with the manifest, so the check
// costs no measured time. A mismatch fails the benchmark (SkipWithError).
#ifndef VELFS_BENCH_READ_CHECK_H
#define VELFS_BENCH_READ_CHECK_H

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "manifest.h"

namespace velfs::bench {

class ReadCheck {
 public:
  // Reads the manifest's entries in `order` (indexes into the manifest), checking every `batch`.
  ReadCheck(const Manifest& manifest, std::vector<std::size_t> order, std::size_t batch);

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

  std::size_t files() const { return order_.size(); }
  uint64_t bytes() const { return bytes_; }  // per pass

 private:
  unsigned char* Slot(std::size_t index) { return buffer_.data() + index * slotSize_; }
  bool Check(benchmark::State& state, std::size_t begin, std::size_t end);

  const Manifest& manifest_;
  std::vector<std::size_t> order_;
  std::size_t batch_;
  std::size_t slotSize_ = 0;
  uint64_t bytes_ = 0;
  std::vector<unsigned char> buffer_;
  std::vector<int64_t> lengths_;
};

// 0 .. count-1 in a fixed pseudo-random order (the same for every benchmark).
std::vector<std::size_t> ShuffledOrder(std::size_t count);

// The "read 10,000 files by name, one open each" pass through the exported API: the files of
// the manifest "files" in the root `root`, opened with velfsCreateFileIndir in mode 0, read whole
// with velfsRead and closed, checked by a ReadCheck.
void ReadFilesThroughVelfs(benchmark::State& state, const std::string& root);

// Fails the benchmark with `message` unless `manifest` was read; answers whether it was.
bool RequireData(benchmark::State& state, const Manifest& manifest);

}  // namespace velfs::bench

#endif  // VELFS_BENCH_READ_CHECK_H
