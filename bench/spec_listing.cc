// SpecListing: the Parts' in-memory listing over raw rows or members.
#include "spec_listing.h"

#include <cstdlib>
#include <cstring>

namespace velfs::bench {

SpecListing::SpecListing() { entries_.push_back({0, std::string()}); }

void SpecListing::AddFile(std::string_view name) { entries_.push_back({0, std::string(name)}); }

void SpecListing::AddDirectory(std::string_view name) {
  std::string withSlash(name);
  withSlash += '/';
  if (directories_.insert(withSlash).second) entries_.push_back({1, std::move(withSlash)});
}

void SpecListing::HandOut(ListingTally& tally) const {
  for (std::size_t i = 1; i < entries_.size(); ++i) {
    const std::string& name = entries_[i].name;
    auto* copy = static_cast<char*>(std::malloc(name.size() + 1));
    if (copy == nullptr) return;
    std::memcpy(copy, name.c_str(), name.size() + 1);
    std::string_view handed(copy, name.size());
    if (entries_[i].kind == 1) handed.remove_suffix(1);
    tally.Add(handed, entries_[i].kind == 1);
    std::free(copy);
  }
}

}  // namespace velfs::bench
