// Fuzz target 2, databases: the input starts with a database image (a Number giving its length,
// then that many bytes; input_reader.h) that is written to a file and offered as a root; the
// rest is a script of listings, reads, writes, positionings, resizes, renames, copies, moves,
// deletes and transactions through the exported functions, on files opened through the root's
// handle and through full paths (each with a connection of its own on the same file).
// Crashes, sanitizer reports and leaks are the findings.
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_sandbox.h"
#include "input_reader.h"
#include "velfs.h"

namespace velfs::fuzz {
namespace {

constexpr uint32_t kMaxImage = 1u << 20;
constexpr uint32_t kMaxTransfer = 1u << 16;
constexpr int kMaxSteps = 256;

// Sizes for velfsResize beyond the 32-bit range. Sizes between SQLite's row limit
// (1,000,000,000) and 2^31 - 1 fail too, but only after the library has zero-filled a buffer of
// that size (seconds each), so limits_test.cc tries one of them instead of the fuzzer.
constexpr std::array<uint64_t, 4> kEdgeSizes = {0x80000000ull, 0xFFFFFFFFull, 0x100000000ull,
                                                UINT64_MAX};

class Session {
 public:
  Session(std::string root, InputReader& input) : root_(std::move(root)), input_(input) {}
  ~Session() { CloseAll(); }
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  bool Open() {
    dir_ = velfsOpenDir(root_.c_str());
    return dir_ != nullptr;
  }
  void Step();

 private:
  FileHandle*& Slot() { return files_[input_.Byte() % files_.size()]; }
  void CloseAll() {
    for (FileHandle*& file : files_) velfsCloseFile(std::exchange(file, nullptr));
    velfsCloseDir(std::exchange(dir_, nullptr));
  }
  void Walk(EnumHandle* listing);

  std::string root_;
  InputReader& input_;
  DirHandle* dir_ = nullptr;
  // Slots 0-3 are opened through the root's handle, 4 and 5 through full paths.
  std::array<FileHandle*, 6> files_{};
};

void Session::Walk(EnumHandle* listing) {
  if (listing == nullptr) return;
  for (int steps = input_.Byte(); steps > 0 && velfsMoveNext(listing); --steps) {
    char* name = nullptr;
    if (velfsGetName(listing, &name)) std::free(name);
    if (velfsGetFullName(listing, &name)) std::free(name);
    velfsIsDirectory(listing);
  }
  if (input_.Byte() % 2 == 1) {
    velfsReset(listing);
    while (velfsMoveNext(listing)) {
    }
  }
  velfsCloseEnum(listing);
}

void Session::Step() {
  bool exists = false;
  switch (input_.Byte() % 19) {
    case 0: {  // open a file through the handle
      const std::size_t slot = input_.Byte() % 4;
      const std::string path = input_.Text();
      const uint32_t mode = input_.Byte();
      velfsCloseFile(files_[slot]);
      files_[slot] = velfsCreateFileIndir(dir_, path.c_str(), mode);
      break;
    }
    case 1: {
      FileHandle* file = Slot();
      const uint32_t length = input_.Number(kMaxTransfer);
      std::string bytes(length, '\0');
      uint8_t value = input_.Byte();
      for (char& c : bytes) c = static_cast<char>(value = static_cast<uint8_t>(value * 5 + 1));
      velfsWrite(file, bytes.data(), bytes.size());
      break;
    }
    case 2: {
      FileHandle* file = Slot();
      std::vector<char> buffer(input_.Number(kMaxTransfer));
      velfsRead(file, buffer.data(), buffer.size());
      break;
    }
    case 3: {
      FileHandle* file = Slot();
      const auto offset = static_cast<int32_t>(input_.Number(UINT32_MAX));
      velfsSeek(file, offset, static_cast<int32_t>(input_.Byte() % 5) - 1);  // -1 to 3
      break;
    }
    case 4: {
      FileHandle* file = Slot();
      velfsTell(file);
      velfsError(file);
      break;
    }
    case 5: {
      FileHandle* file = Slot();
      const uint8_t kind = input_.Byte();
      const uint64_t size = kind < 0xF0 ? input_.Number(kMaxTransfer) : kEdgeSizes[kind % 4];
      velfsResize(file, size);
      break;
    }
    case 6:
      velfsCloseFile(std::exchange(Slot(), nullptr));
      break;
    case 7: {
      const std::string path = input_.Text();
      Walk(velfsCreateEnumIndir(dir_, path.c_str()));
      break;
    }
    case 8: {
      const std::string path = input_.Text();
      velfsIsFileExist(dir_, path.c_str(), &exists);
      velfsIsDirectoryExist(dir_, path.c_str(), &exists);
      break;
    }
    case 9:
      velfsDeleteFile(dir_, input_.Text().c_str());
      break;
    case 10:
      velfsDeleteDirectory(dir_, input_.Text().c_str());
      break;
    case 11: {
      const std::string from = input_.Text();
      velfsRenameFile(dir_, from.c_str(), input_.Text().c_str());
      break;
    }
    case 12: {
      const std::string from = input_.Text();
      const std::string to = input_.Text();
      velfsCopyFile(dir_, from.c_str(), to.c_str(), input_.Byte() % 2 == 1);
      break;
    }
    case 13: {
      const std::string from = input_.Text();
      const std::string to = input_.Text();
      velfsMoveFile(dir_, from.c_str(), to.c_str(), input_.Byte() % 2 == 1);
      break;
    }
    case 14:
      velfsBeginTrans(dir_);
      break;
    case 15:
      velfsCommitTrans(dir_);
      break;
    case 16: {  // a file through a full path: a storage and connection of its own
      const std::size_t slot = 4 + input_.Byte() % 2;
      const std::string path = root_ + ":" + input_.Text();
      velfsCloseFile(files_[slot]);
      files_[slot] = velfsCreateFile(path.c_str(), input_.Byte());
      break;
    }
    case 17: {
      const std::string path = root_ + ":" + input_.Text();
      Walk(velfsCreateEnum(path.c_str()));
      break;
    }
    default:  // close everything and open the root again (an open transaction is lost)
      CloseAll();
      Open();
      break;
  }
}

}  // namespace
}  // namespace velfs::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace velfs::fuzz;
  static const FuzzSandbox sandbox("database");
  sandbox.Clear();  // the image file and any journal SQLite left beside it
  InputReader input(data, size);
  const std::string image = input.Bytes(input.Number(kMaxImage));
  const std::string root = sandbox.PathOf("store.db");
  if (!WriteWholeFile(root, image)) return 0;
  Session session(root, input);
  if (!session.Open()) return 0;
  for (int step = 0; step < kMaxSteps && !input.empty(); ++step) session.Step();
  return 0;
}
