// ListingTally: what a directory listing delivered, reduced to numbers that do not depend on the
// order of the entries: how many entries, how many of them directories, and the sum of a 64-bit
// FNV-1a hash of every name (directory names without their trailing '/'). Two listings of the
// same entries give equal tallies.
#ifndef VELFS_BENCH_LISTING_TALLY_H
#define VELFS_BENCH_LISTING_TALLY_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace velfs::bench {

class ListingTally {
 public:
  // The listing of bench/make_data_sets.py's entries/ directory with n entries: files f0 ..
  // f(n/2 - 1) and directories s0 .. s(n/2 - 1).
  static ListingTally Expected(std::size_t n);

  void Add(std::string_view name, bool isDirectory);
  // For listings that do not tell files from directories (PhysicsFS's enumeration).
  void AddName(std::string_view name);

  // Same entries; the directory count is compared only when both tallies know it.
  bool Matches(const ListingTally& other) const;
  std::size_t entries() const { return entries_; }

 private:
  std::size_t entries_ = 0;
  std::size_t directories_ = 0;
  bool kindsKnown_ = true;
  uint64_t hashSum_ = 0;
};

}  // namespace velfs::bench

#endif  // VELFS_BENCH_LISTING_TALLY_H
