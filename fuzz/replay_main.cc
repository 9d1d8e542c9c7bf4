// A main for the fuzz targets without libFuzzer: runs every file named on the command line, and
// every file inside every directory named there, once through LLVMFuzzerTestOneInput. Built with
// any compiler and no sanitizer, it replays a corpus under valgrind, which sees into the
// uninstrumented system libraries (zziplib, SQLite) where the sanitizers cannot.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <system_error>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size);

namespace {

void RunOne(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
  LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t inputs = 0;
  for (int i = 1; i < argc; ++i) {
    const std::filesystem::path argument(argv[i]);
    std::error_code error;
    if (std::filesystem::is_directory(argument, error)) {
      std::vector<std::filesystem::path> files;
      for (const auto& entry : std::filesystem::directory_iterator(argument, error)) {
        if (entry.is_regular_file(error)) files.push_back(entry.path());
      }
      std::sort(files.begin(), files.end());
      for (const auto& file : files) RunOne(file);
      inputs += files.size();
    } else if (std::filesystem::is_regular_file(argument, error)) {
      RunOne(argument);
      ++inputs;
    } else {
      std::fprintf(stderr, "%s: not a file or directory\n", argv[i]);
      return 2;
    }
  }
  std::printf("replayed %zu inputs\n", inputs);
  return 0;
}
