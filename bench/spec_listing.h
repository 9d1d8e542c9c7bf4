// SpecListing: the listing that Parts 3.3 and 5.4 have velFS build, made directly over the raw
// library's rows or members, without velFS: every entry kept in order (a placeholder first),
// directory names kept once through a set, and each name handed out as a malloc'd copy that the
// reader frees, as velfsGetName does. It measures what the Parts' listing costs in itself, next
// to the raw iteration over the same rows or members.
#ifndef VELFS_BENCH_SPEC_LISTING_H
#define VELFS_BENCH_SPEC_LISTING_H

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

#include "listing_tally.h"

namespace velfs::bench {

class SpecListing {
 public:
  SpecListing();

  void AddFile(std::string_view name);
  // `name` without its '/': listed once however many rows or members name it.
  void AddDirectory(std::string_view name);
  // Walks the entries after the placeholder, copying each name out with malloc and freeing it.
  void HandOut(ListingTally& tally) const;

 private:
  struct Entry {
    uint32_t kind;  // 0 a file, 1 a directory
    std::string name;
  };
  std::vector<Entry> entries_;
  std::unordered_set<std::string> directories_;
};

}  // namespace velfs::bench

#endif  // VELFS_BENCH_SPEC_LISTING_H
