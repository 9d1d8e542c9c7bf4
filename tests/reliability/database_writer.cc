// velfs_database_writer: the child program of the crash and contention tests, working on a
// database root through the exported functions and talking to its parent over stdin/stdout.
//   velfs_database_writer write DB FIRST  runs transactions FIRST, FIRST+1, ... until killed,
//                                         writing each committed number (4 bytes) to stdout.
//   velfs_database_writer hold DB         begins a transaction, writes held.txt and replaces
//                                         base.txt, writes 'H', waits for one byte on stdin,
//                                         commits and writes '1' (committed) or '0'.
// Exit status 0 when it ended as described, 3 when the root or a transaction failed.
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "transactions.h"

namespace {

bool Put(const void* bytes, std::size_t count) {
  return ::write(STDOUT_FILENO, bytes, count) == static_cast<ssize_t>(count);
}

bool WriteFile(DirHandle* dir, const char* path, const std::string& content) {
  FileHandle* file = velfsCreateFileIndir(dir, path, 1);
  const bool written =
      file != nullptr && velfsWrite(file, content.data(), content.size()) == content.size();
  velfsCloseFile(file);
  return written;
}

int Run(DirHandle* dir, const std::string& mode, const char* first) {
  if (mode == "write") {
    for (uint32_t index = static_cast<uint32_t>(std::strtoul(first, nullptr, 10));; ++index) {
      if (!velfs_test::RunTransaction(dir, index) || !Put(&index, sizeof index)) return 3;
    }
  }
  if (!velfsBeginTrans(dir) || !WriteFile(dir, "held.txt", "held") ||
      !WriteFile(dir, "base.txt", "changed") || !Put("H", 1)) {
    return 3;
  }
  char go = 0;
  if (::read(STDIN_FILENO, &go, 1) != 1) return 3;
  return Put(velfsCommitTrans(dir) ? "1" : "0", 1) ? 0 : 3;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  DirHandle* dir = velfsOpenDir(argv[2]);
  if (dir == nullptr) return 3;
  const int status = Run(dir, argv[1], argc > 3 ? argv[3] : "1");
  velfsCloseDir(dir);
  return status;
}
