// velfs_crash_writer: the child process of the crash-consistency and contention tests. It works
// on a database root through the exported functions and talks to its parent over stdin/stdout.
//
//   velfs_crash_writer write DB FIRST   runs transactions FIRST, FIRST+1, ... of
//                                       transaction_script.h until it is killed; after each
//                                       velfsCommitTrans that answered true it writes the
//                                       transaction's number (4 bytes, host order) to stdout.
//   velfs_crash_writer hold DB          opens a transaction, changes base/a.txt, base/gone.txt
//                                       and held/x.txt, writes 'H', waits for one byte on stdin,
//                                       commits and writes '1' (committed) or '0'.
//   velfs_crash_writer attempt DB       outside a transaction, writes c/new.txt, resizes base/a.txt
//                                       to 1 byte, copies base/a.txt to c/copy.txt, renames that to
//                                       c/renamed.txt, moves that to d/moved.txt, deletes
//                                       base/gone.txt and the directory e/; writes one '1' or '0'
//                                       per operation (7 in all), then the content of base/a.txt
//                                       as read through the library.
// Exit status 0 when it ended as described; 2 for bad arguments, 3 when the root does not open
// or a transaction fails.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "transaction_script.h"
#include "velfs.h"

namespace {

bool Put(const void* bytes, std::size_t count) {
  return ::write(STDOUT_FILENO, bytes, count) == static_cast<ssize_t>(count);
}

bool PutResult(bool result) { return Put(result ? "1" : "0", 1); }

bool WriteAt(DirHandle* dir, const char* path, const std::string& content) {
  FileHandle* file = velfsCreateFileIndir(dir, path, 1);
  if (file == nullptr) return false;
  const bool written = velfsWrite(file, content.data(), content.size()) == content.size();
  velfsCloseFile(file);
  return written;
}

int WriteForever(DirHandle* dir, uint32_t first) {
  for (uint32_t index = first;; ++index) {
    if (!velfs::reliability::RunTransaction(dir, index)) return 3;
    if (!Put(&index, sizeof index)) return 3;
  }
}

int Hold(DirHandle* dir) {
  const bool changed = velfsBeginTrans(dir) && WriteAt(dir, "held/x.txt", "held") &&
                       WriteAt(dir, "base/a.txt", "A2") && velfsDeleteFile(dir, "base/gone.txt");
  if (!changed || !Put("H", 1)) return 3;
  char go = 0;
  if (::read(STDIN_FILENO, &go, 1) != 1) return 3;
  return PutResult(velfsCommitTrans(dir)) ? 0 : 3;
}

int Attempt(DirHandle* dir) {
  const bool written = WriteAt(dir, "c/new.txt", "new");
  FileHandle* existing = velfsCreateFileIndir(dir, "base/a.txt", 3);
  const bool resized = existing != nullptr && velfsResize(existing, 1);
  velfsCloseFile(existing);
  const bool copied = velfsCopyFile(dir, "base/a.txt", "c/copy.txt", true);
  const bool renamed = velfsRenameFile(dir, "c/copy.txt", "c/renamed.txt");
  const bool moved = velfsMoveFile(dir, "c/renamed.txt", "d/moved.txt", true);
  const bool deleted = velfsDeleteFile(dir, "base/gone.txt");
  const bool directoryDeleted = velfsDeleteDirectory(dir, "e/");
  const bool results[] = {written, resized, copied, renamed, moved, deleted, directoryDeleted};
  for (const bool result : results) {
    if (!PutResult(result)) return 3;
  }
  FileHandle* file = velfsCreateFileIndir(dir, "base/a.txt", 0);
  char content[16] = {};
  const uint64_t count = file == nullptr ? 0 : velfsRead(file, content, sizeof content);
  velfsCloseFile(file);
  return Put(content, static_cast<std::size_t>(count)) ? 0 : 3;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return 2;
  const std::string mode = argv[1];
  DirHandle* dir = velfsOpenDir(argv[2]);
  if (dir == nullptr) return 3;
  int status = 2;
  if (mode == "write" && argc == 4) status = WriteForever(dir, std::strtoul(argv[3], nullptr, 10));
  if (mode == "hold") status = Hold(dir);
  if (mode == "attempt") status = Attempt(dir);
  velfsCloseDir(dir);
  return status;
}
