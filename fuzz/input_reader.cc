// InputReader (input_reader.h).
#include "input_reader.h"

#include <algorithm>

namespace velfs::fuzz {
namespace {

constexpr uint8_t kLongText = 0xF0;
constexpr uint32_t kLongTextLimit = 8192;

}  // namespace

uint8_t InputReader::Byte() { return empty() ? 0 : data_[offset_++]; }

uint32_t InputReader::Number(uint32_t limit) {
  uint32_t value = 0;
  for (int shift = 0; shift < 32; shift += 8) value |= static_cast<uint32_t>(Byte()) << shift;
  return limit == UINT32_MAX ? value : value % (limit + 1);
}

std::string InputReader::Bytes(std::size_t count) {
  const std::size_t taken = std::min(count, size_ - std::min(offset_, size_));
  std::string bytes(reinterpret_cast<const char*>(data_) + offset_, taken);
  offset_ += taken;
  return bytes;
}

std::string InputReader::ShortText() { return Bytes(Byte() % kLongText); }

std::string InputReader::Text() {
  const uint8_t length = Byte();
  if (length < kLongText) return Bytes(length);
  const std::size_t total = Number(kLongTextLimit);
  std::string piece = ShortText();
  if (piece.empty()) piece = "a";
  std::string text;
  text.reserve(total);
  while (text.size() < total) text.append(piece, 0, std::min(piece.size(), total - text.size()));
  return text;
}

}  // namespace velfs::fuzz
