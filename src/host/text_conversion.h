// The only conversions between UTF-8 and UTF-16 in the library: platform-neutral code, kept in
// the host layer because every host implementation reads paths through it (host.h).
//
// They behave as Windows' MultiByteToWideChar / WideCharToMultiByte with code page 65001 and
// flags 0: malformed input is never an error. Each maximal ill-formed subsequence of UTF-8
// becomes one U+FFFD, and each unpaired surrogate becomes U+FFFD. The result ends at the first
// zero unit, and a text too long for the platform's signed 32-bit counts (2^31 bytes of UTF-8,
// 2^31 / 3 units of UTF-16) converts to the empty string, as a refused conversion does there.
#ifndef VELFS_HOST_TEXT_CONVERSION_H
#define VELFS_HOST_TEXT_CONVERSION_H

#include <cstddef>
#include <string>

namespace velfs {

void Utf8ToWide(const char* text, std::u16string& wide);
void Utf8ToWide(const char* bytes, std::size_t count, std::u16string& wide);
void WideToUtf8(const char16_t* text, std::string& narrow);
void WideToUtf8(const char16_t* units, std::size_t count, std::string& narrow);

}  // namespace velfs

#endif  // VELFS_HOST_TEXT_CONVERSION_H
