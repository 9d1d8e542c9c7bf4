// Manifest: the list of files of one benchmark data set, as bench/make_data_sets.py writes it
// ("<set>.manifest": name, size and CRC-32 per line, tab-separated), and the data directory that
// scripts/bench.sh names in the environment variable VELFS_BENCH_DATA.
#ifndef VELFS_BENCH_MANIFEST_H
#define VELFS_BENCH_MANIFEST_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velfs::bench {

struct ManifestEntry {
  std::string name;  // relative to the data set's root, '/' as separator
  uint64_t size = 0;
  uint32_t crc = 0;  // zlib's CRC-32 of the bytes
};

class Manifest {
 public:
  // Reads "<data directory>/<set>.manifest"; an empty manifest when the variable is unset or
  // the file cannot be read.
  static Manifest Load(std::string_view set);

  bool empty() const { return entries_.empty(); }
  std::size_t size() const { return entries_.size(); }
  const ManifestEntry& operator[](std::size_t index) const { return entries_[index]; }
  const std::vector<ManifestEntry>& entries() const { return entries_; }
  // The entry named `name`, or null.
  const ManifestEntry* Find(std::string_view name) const;

 private:
  std::vector<ManifestEntry> entries_;
};

// "<data directory>/<relative>", or an empty string when VELFS_BENCH_DATA is not set.
std::string DataPath(std::string_view relative);

// zlib's CRC-32 of `size` bytes.
uint32_t Crc32(const void* bytes, std::size_t size);

}  // namespace velfs::bench

#endif  // VELFS_BENCH_MANIFEST_H
