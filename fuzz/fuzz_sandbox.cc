// FuzzSandbox (fuzz_sandbox.h).
#include "fuzz_sandbox.h"

#include <stdlib.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace velfs::fuzz {

FuzzSandbox::FuzzSandbox(std::string_view tag) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") +
                        "/velfs-fuzz-" + std::string(tag) + "-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    std::perror("velfs fuzz sandbox: mkdtemp");
    std::abort();
  }
  root_ = pattern;
}

FuzzSandbox::~FuzzSandbox() {
  std::error_code ignored;
  std::filesystem::remove_all(root_, ignored);
}

std::string FuzzSandbox::PathOf(std::string_view name) const {
  return name.empty() ? root_ : root_ + "/" + std::string(name);
}

void FuzzSandbox::Clear() const {
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(root_, ignored)) {
    std::filesystem::remove_all(entry.path(), ignored);
  }
}

std::string FuzzSandbox::Confine(std::string text) {
  for (std::size_t at = text.find(".."); at != std::string::npos; at = text.find("..", at)) {
    text[at + 1] = '_';
  }
  return text;
}

bool WriteWholeFile(const std::string& path, std::string_view bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out);
}

std::string ReadWholeFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

}  // namespace velfs::fuzz
