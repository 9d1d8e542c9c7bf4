// InputReader: a fuzzer input read as a script of small decisions (bytes, bounded numbers, texts).
//
// Every read past the end answers 0 or an empty text, so that any byte string is a complete
// script. The encoding is the one fuzz/make_corpus.py writes for the seed inputs:
//   Byte    one byte;
//   Number  four bytes, little-endian, reduced modulo limit + 1;
//   Text    a length byte L: below 0xF0 the next L bytes; from 0xF0 on a long text, a Number
//           (limit 8,192) giving its length N and a short text (its own length byte, reduced
//           below 0xF0, and bytes) repeated to N bytes ('a' when that piece is empty);
//   Bytes   the next n bytes as they are.
#ifndef VELFS_FUZZ_INPUT_READER_H
#define VELFS_FUZZ_INPUT_READER_H

#include <cstddef>
#include <cstdint>
#include <string>

namespace velfs::fuzz {

class InputReader {
 public:
  InputReader(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}

  bool empty() const { return offset_ >= size_; }
  uint8_t Byte();
  uint32_t Number(uint32_t limit);
  std::string Text();
  std::string Bytes(std::size_t count);

 private:
  std::string ShortText();

  const uint8_t* data_;
  std::size_t size_;
  std::size_t offset_ = 0;
};

}  // namespace velfs::fuzz

#endif  // VELFS_FUZZ_INPUT_READER_H
