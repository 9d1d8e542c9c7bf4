// Listing: a directory listing held in memory.
#include "core/listing.h"

#include <utility>

namespace velfs {

Listing::Listing(std::string prefix) : prefix_(std::move(prefix)) { AddFile({}); }

void Listing::AddFile(std::string_view name) {
  if (!name.empty() && name.back() == '/') slashNames_.emplace(name);
  entries_.push_back({false, std::string(name)});
}

void Listing::AddDirectory(std::string_view name) {
  if (slashNames_.emplace(name).second) entries_.push_back({true, std::string(name)});
}

bool Listing::MoveNext() {
  if (!OnEntry()) return false;
  ++current_;
  return OnEntry();
}

void Listing::Reset() { current_ = 0; }

bool Listing::GetName(char** name) {
  if (name == nullptr || !OnEntry()) return false;
  const std::string& text = entries_[current_].name;
  *name = CopyForHost(text.data(), text.size());
  return true;
}

bool Listing::GetFullName(char** name) {
  if (name == nullptr || !OnEntry()) return false;
  std::string text = prefix_ + entries_[current_].name;
  if (IsDirectory() && (text.empty() || text.back() != '/')) text += '/';
  *name = CopyForHost(text.data(), text.size());
  return true;
}

bool Listing::IsDirectory() { return OnEntry() && entries_[current_].isDirectory; }

}  // namespace velfs
