// ListingTally: order-independent summary of a listing.
#include "listing_tally.h"

#include <string>

namespace velfs::bench {
namespace {

uint64_t Fnv1a(std::string_view text) {
  uint64_t hash = 14695981039346656037ull;
  for (const char c : text) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 1099511628211ull;
  }
  return hash;
}

}  // namespace

ListingTally ListingTally::Expected(std::size_t n) {
  ListingTally tally;
  for (std::size_t k = 0; k < n / 2; ++k) {
    const std::string number = std::to_string(k);
    tally.Add("f" + number, false);
    tally.Add("s" + number, true);
  }
  return tally;
}

void ListingTally::Add(std::string_view name, bool isDirectory) {
  ++entries_;
  hashSum_ += Fnv1a(name);
  if (isDirectory) ++directories_;
}

void ListingTally::AddName(std::string_view name) {
  Add(name, false);
  kindsKnown_ = false;
}

bool ListingTally::Matches(const ListingTally& other) const {
  return entries_ == other.entries_ && hashSum_ == other.hashSum_ &&
         (!kindsKnown_ || !other.kindsKnown_ || directories_ == other.directories_);
}

}  // namespace velfs::bench
