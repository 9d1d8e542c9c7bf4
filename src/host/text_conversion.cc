// UTF-8 <-> UTF-16 with Windows' code page 65001 semantics (see the header).
#include "host/text_conversion.h"

#include <cstdint>
#include <limits>

namespace velfs {
namespace {

constexpr char16_t kReplacement = 0xFFFD;
constexpr std::size_t kMaxCount = std::numeric_limits<int32_t>::max();

// Decodes one scalar value at `bytes[i]`, advancing `i` past it, or past the maximal ill-formed
// subsequence (Unicode's "substitution of maximal subparts") and answering U+FFFD.
char32_t DecodeUtf8(const unsigned char* bytes, std::size_t count, std::size_t& i) {
  const unsigned char lead = bytes[i++];
  if (lead < 0x80) return lead;
  int trail;
  char32_t value;
  unsigned char low = 0x80, high = 0xBF;  // the range of the first trail byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    trail = 1, value = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    trail = 2, value = lead & 0x0F;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;  // no UTF-16 surrogates encoded in UTF-8
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    trail = 3, value = lead & 0x07;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;  // nothing above U+10FFFF
  } else {
    return kReplacement;
  }
  for (int k = 0; k < trail; ++k, low = 0x80, high = 0xBF) {
    if (i >= count || bytes[i] < low || bytes[i] > high) return kReplacement;
    value = (value << 6) | (bytes[i++] & 0x3F);
  }
  return value;
}

}  // namespace

void Utf8ToWide(const char* text, std::u16string& wide) {
  Utf8ToWide(text, std::char_traits<char>::length(text), wide);
}

void Utf8ToWide(const char* bytes, std::size_t count, std::u16string& wide) {
  std::u16string result;
  if (count <= kMaxCount) {
    result.reserve(count);
    const auto* in = reinterpret_cast<const unsigned char*>(bytes);
    for (std::size_t i = 0; i < count;) {
      const char32_t c = DecodeUtf8(in, count, i);
      if (c == 0) break;  // the result ends at the first zero unit
      if (c >= 0x10000) {
        result.push_back(static_cast<char16_t>(0xD800 + ((c - 0x10000) >> 10)));
        result.push_back(static_cast<char16_t>(0xDC00 + ((c - 0x10000) & 0x3FF)));
      } else {
        result.push_back(static_cast<char16_t>(c));
      }
    }
  }
  wide = std::move(result);
}

void WideToUtf8(const char16_t* text, std::string& narrow) {
  WideToUtf8(text, std::char_traits<char16_t>::length(text), narrow);
}

void WideToUtf8(const char16_t* units, std::size_t count, std::string& narrow) {
  std::string result;
  if (count <= kMaxCount / 3) {
    result.reserve(count * 3);
    for (std::size_t i = 0; i < count; ++i) {
      char32_t c = units[i];
      if (c == 0) break;
      if (c >= 0xD800 && c <= 0xDBFF && i + 1 < count && units[i + 1] >= 0xDC00 &&
          units[i + 1] <= 0xDFFF) {
        c = 0x10000 + ((c - 0xD800) << 10) + (units[++i] - 0xDC00);
      } else if (c >= 0xD800 && c <= 0xDFFF) {
        c = kReplacement;  // an unpaired surrogate
      }
      if (c < 0x80) {
        result.push_back(static_cast<char>(c));
      } else if (c < 0x800) {
        result.push_back(static_cast<char>(0xC0 | (c >> 6)));
        result.push_back(static_cast<char>(0x80 | (c & 0x3F)));
      } else if (c < 0x10000) {
        result.push_back(static_cast<char>(0xE0 | (c >> 12)));
        result.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        result.push_back(static_cast<char>(0x80 | (c & 0x3F)));
      } else {
        result.push_back(static_cast<char>(0xF0 | (c >> 18)));
        result.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
        result.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
        result.push_back(static_cast<char>(0x80 | (c & 0x3F)));
      }
    }
  }
  narrow = std::move(result);
}

}  // namespace velfs
