// FuzzSandbox: the one scratch directory of a fuzzer process, under $TMPDIR (or /tmp).
//
// Every path a fuzz target hands to the library lies inside it: `Confine` turns each ".." of a
// fuzzed text into "._", so that no text can climb out of the directory it is joined to, while
// ':', '\\', invalid UTF-8 and any length stay. `Clear` empties the directory between inputs; the
// destructor removes it.
#ifndef VELFS_FUZZ_FUZZ_SANDBOX_H
#define VELFS_FUZZ_FUZZ_SANDBOX_H

#include <string>
#include <string_view>

namespace velfs::fuzz {

class FuzzSandbox {
 public:
  // `tag` names the target in the directory's name.
  explicit FuzzSandbox(std::string_view tag);
  ~FuzzSandbox();
  FuzzSandbox(const FuzzSandbox&) = delete;
  FuzzSandbox& operator=(const FuzzSandbox&) = delete;

  // The directory joined with `name` (the directory itself for "").
  std::string PathOf(std::string_view name = "") const;
  // Removes everything inside the directory.
  void Clear() const;

  static std::string Confine(std::string text);

 private:
  std::string root_;
};

// Writes `bytes` to the host file `path`, replacing it; false when it cannot.
bool WriteWholeFile(const std::string& path, std::string_view bytes);
// The whole host file `path` ("" when it cannot be read).
std::string ReadWholeFile(const std::string& path);

}  // namespace velfs::fuzz

#endif  // VELFS_FUZZ_FUZZ_SANDBOX_H
