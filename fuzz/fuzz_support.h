// What the fuzz targets share: their input read as a script of small decisions, and the one
// scratch directory of a fuzzer process.
//
// Script encoding (fuzz/make_corpus.py writes the seeds in it); a read past the end answers 0 or
// an empty text, so any byte string is a whole script:
//   Byte    one byte;
//   Number  four bytes, little-endian, reduced modulo limit + 1;
//   Text    a length byte L: below 0xF0 the next L bytes; from 0xF0 on, (L - 0xEF) * 512 copies
//           of the next byte (texts of 512 to 8,192 bytes).
#ifndef VELFS_FUZZ_FUZZ_SUPPORT_H
#define VELFS_FUZZ_FUZZ_SUPPORT_H

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace velfs_fuzz {

class Script {
 public:
  Script(const uint8_t* data, std::size_t size) : data_(data), size_(size) {}
  bool empty() const { return offset_ >= size_; }
  uint8_t Byte() { return offset_ < size_ ? data_[offset_++] : 0; }
  uint32_t Number(uint32_t limit) {
    uint32_t value = 0;
    for (int shift = 0; shift < 32; shift += 8) value |= uint32_t{Byte()} << shift;
    return limit == UINT32_MAX ? value : value % (limit + 1);
  }
  std::string Bytes(std::size_t count) {
    count = std::min(count, size_ - std::min(offset_, size_));
    std::string bytes(reinterpret_cast<const char*>(data_) + offset_, count);
    offset_ += count;
    return bytes;
  }
  std::string Text() {
    const uint8_t length = Byte();
    if (length < 0xF0) return Bytes(length);
    return std::string(std::size_t{length - 0xEFu} * 512, static_cast<char>(Byte()));
  }

 private:
  const uint8_t* data_;
  std::size_t size_;
  std::size_t offset_ = 0;
};

// The process's scratch directory under the system's temporary directory, emptied by Clear and
// removed at exit. Confine keeps a fuzzed text inside whatever directory it is joined to: each
// ".." becomes "._", while ':', '\\', invalid UTF-8 and any length stay.
class Sandbox {
 public:
  explicit Sandbox(const std::string& tag)
      : root_(std::filesystem::temp_directory_path() /
              ("velfs-fuzz-" + tag + "-" + std::to_string(std::rand()))) {
    std::filesystem::create_directories(root_);
  }
  ~Sandbox() {
    std::error_code ignored;
    std::filesystem::remove_all(root_, ignored);
  }
  std::string PathOf(const std::string& name) const { return (root_ / name).generic_string(); }
  void Clear() const {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator(root_, ignored)) {
      std::filesystem::remove_all(entry.path(), ignored);
    }
  }
  static std::string Confine(std::string text) {
    for (std::size_t at = text.find(".."); at != std::string::npos; at = text.find("..", at)) {
      text[at + 1] = '_';
    }
    return text;
  }

 private:
  std::filesystem::path root_;
};

inline void WriteFile(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

}  // namespace velfs_fuzz

#endif  // VELFS_FUZZ_FUZZ_SUPPORT_H
