// Listing: a directory listing held in memory.
#include "core/listing.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <stdexcept>
#include <utility>

namespace velfs {
namespace {

// 64-bit FNV-1a, folded to 32 bits so that the low bits, which pick the slot, depend on every
// byte.
uint32_t HashName(std::string_view name) {
  uint64_t hash = 14695981039346656037ull;
  for (const char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
  return static_cast<uint32_t>(hash ^ (hash >> 32));
}

bool EndsInSlash(std::string_view name) { return !name.empty() && name.back() == '/'; }

}  // namespace

Listing::Listing(std::string prefix) : prefix_(std::move(prefix)) { Append({}, false); }

std::string_view Listing::NameAt(std::size_t offset, std::size_t* next) const {
  uint64_t header = 0;
  for (int shift = 0;; shift += 7) {
    const auto byte = static_cast<unsigned char>(records_[offset++]);
    header |= uint64_t{byte & 0x7fu} << shift;
    if (byte < 0x80) break;
  }
  const auto length = static_cast<std::size_t>(header >> 1);
  if (next != nullptr) *next = offset + length;
  return std::string_view(records_).substr(offset, length);
}

std::size_t Listing::Append(std::string_view name, bool isDirectory) {
  const std::size_t offset = records_.size();
  if (offset > UINT32_MAX) throw std::length_error("a listing holds at most 4 GiB of names");
  char header[10];
  std::size_t headerSize = 0;
  for (uint64_t rest = uint64_t{name.size()} << 1 | (isDirectory ? 1 : 0);; rest >>= 7) {
    header[headerSize++] = static_cast<char>(rest < 0x80 ? rest : (rest & 0x7f) | 0x80);
    if (rest < 0x80) break;
  }
  // Room for the whole record first, growing geometrically: the appends below cannot throw.
  const std::size_t needed = offset + headerSize + name.size();
  if (needed > records_.capacity()) records_.reserve(std::max(needed, 2 * records_.capacity()));
  records_.append(header, headerSize);
  records_.append(name);
  return offset;
}

std::size_t Listing::SlotOf(std::string_view name, uint32_t hash) const {
  const std::size_t mask = slashNames_.size() - 1;
  for (std::size_t slot = hash & mask;; slot = (slot + 1) & mask) {
    const SlashName& held = slashNames_[slot];
    if (held.record == 0 || (held.hash == hash && NameAt(held.record) == name)) return slot;
  }
}

void Listing::ReserveSlashName() {
  if ((slashNameCount_ + 1) * 2 <= slashNames_.size()) return;
  std::vector<SlashName> grown(slashNames_.empty() ? 16 : slashNames_.size() * 2);
  std::swap(grown, slashNames_);
  const std::size_t mask = slashNames_.size() - 1;
  for (const SlashName& held : grown) {
    if (held.record == 0) continue;
    std::size_t slot = held.hash & mask;  // the names differ: the first empty slot is its own
    while (slashNames_[slot].record != 0) slot = (slot + 1) & mask;
    slashNames_[slot] = held;
  }
}

void Listing::Record(std::size_t slot, std::size_t record, uint32_t hash) {
  slashNames_[slot] = {static_cast<uint32_t>(record), hash};
  ++slashNameCount_;
}

void Listing::AddFile(std::string_view name) {
  if (!EndsInSlash(name)) {
    Append(name, false);
    return;
  }
  ReserveSlashName();
  const std::size_t record = Append(name, false);
  const uint32_t hash = HashName(name);
  const std::size_t slot = SlotOf(name, hash);
  if (slashNames_[slot].record == 0) Record(slot, record, hash);  // else an earlier one stands
}

void Listing::AddDirectory(std::string_view name) {
  ReserveSlashName();
  const uint32_t hash = HashName(name);
  const std::size_t slot = SlotOf(name, hash);
  if (slashNames_[slot].record != 0) return;
  Record(slot, Append(name, true), hash);
}

bool Listing::MoveNext() {
  if (!OnEntry()) return false;
  NameAt(current_, &current_);
  return OnEntry();
}

void Listing::Reset() { current_ = 0; }

bool Listing::GetName(char** name) {
  if (name == nullptr || !OnEntry()) return false;
  const std::string_view text = NameAt(current_);
  *name = CopyForHost(text.data(), text.size());
  return true;
}

// One allocation of the exact length: the prefix, the name and perhaps a '/' are copied into it
// in place, with no intermediate string.
bool Listing::GetFullName(char** name) {
  if (name == nullptr || !OnEntry()) return false;
  const std::string_view entryName = NameAt(current_);
  const std::string_view last = entryName.empty() ? std::string_view(prefix_) : entryName;
  const bool addSlash = IsDirectory() && !EndsInSlash(last);
  const std::size_t length = prefix_.size() + entryName.size() + (addSlash ? 1 : 0);
  auto* text = static_cast<char*>(std::malloc(length + 1));
  if (text == nullptr) throw std::bad_alloc();
  std::memcpy(text, prefix_.data(), prefix_.size());
  if (!entryName.empty()) std::memcpy(text + prefix_.size(), entryName.data(), entryName.size());
  if (addSlash) text[length - 1] = '/';
  text[length] = '\0';
  *name = text;
  return true;
}

// The header's low bit, in its first byte whatever the header's length.
bool Listing::IsDirectory() { return OnEntry() && (records_[current_] & 1) != 0; }

}  // namespace velfs
