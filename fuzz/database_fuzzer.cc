// Databases: the input starts with a database image (a Number giving its length, then its bytes)
// that is offered as a root; the rest is a script (fuzz_support.h) of reads, writes, seeks, resizes, listings,
// renames, copies, moves, deletes and transactions on files opened through the root's handle and
// through full paths (each with a connection of its own). Crashes, sanitizer reports and leaks
// are the findings.
#include <array>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "velfs.h"

namespace {

// Sizes beyond the 32-bit range; those between SQLite's row limit and 2^31 fail too, but only
// after a zero-filled buffer of that size, so the limits test tries one instead.
constexpr uint64_t kEdgeSizes[] = {0x80000000ull, 0xFFFFFFFFull, 0x100000000ull, UINT64_MAX};

struct Session {
  Session(velfs_fuzz::Script& input, std::string path) : script(input), root(std::move(path)) {}
  velfs_fuzz::Script& script;
  std::string root;
  DirHandle* dir = nullptr;
  std::array<FileHandle*, 6> files{};  // 0-3 through the handle, 4-5 through full paths

  ~Session() { CloseAll(); }
  void CloseAll() {
    for (FileHandle*& file : files) velfsCloseFile(std::exchange(file, nullptr));
    velfsCloseDir(std::exchange(dir, nullptr));
  }
  static void Walk(EnumHandle* listing, int steps) {
    for (; steps > 0 && velfsMoveNext(listing); --steps) {
      char* name = nullptr;
      if (velfsGetName(listing, &name)) std::free(name);
      if (velfsGetFullName(listing, &name)) std::free(name);
      velfsIsDirectory(listing);
    }
    velfsReset(listing);
    velfsCloseEnum(listing);
  }
  // One step: operation, slot, two texts, a number and a flag byte, always all read.
  void Step() {
    const uint8_t operation = script.Byte(), slot = script.Byte();
    const std::string a = script.Text(), b = script.Text();
    const uint32_t number = script.Number(UINT32_MAX);
    const uint8_t flag = script.Byte();
    FileHandle*& file = files[slot % files.size()];
    bool exists = false;
    switch (operation % 16) {
      case 0:
        velfsCloseFile(files[slot % 4]);
        files[slot % 4] = velfsCreateFileIndir(dir, a.c_str(), flag);
        break;
      case 1:
        velfsCloseFile(files[4 + slot % 2]);
        files[4 + slot % 2] = velfsCreateFile((root + ":" + a).c_str(), flag);
        break;
      case 2: {
        const std::string bytes(number % (1 << 16), static_cast<char>(flag));
        velfsWrite(file, bytes.data(), bytes.size());
        break;
      }
      case 3: {
        std::vector<char> buffer(number % (1 << 16));
        velfsRead(file, buffer.data(), buffer.size());
        break;
      }
      case 4:
        velfsSeek(file, static_cast<int32_t>(number), flag % 5 - 1);
        velfsTell(file);
        velfsError(file);
        break;
      case 5: velfsResize(file, flag < 0xF0 ? number % (1 << 16) : kEdgeSizes[flag % 4]); break;
      case 6: velfsCloseFile(std::exchange(file, nullptr)); break;
      case 7: Walk(velfsCreateEnumIndir(dir, a.c_str()), flag); break;
      case 8: Walk(velfsCreateEnum((root + ":" + a).c_str()), flag); break;
      case 9:
        velfsIsFileExist(dir, a.c_str(), &exists);
        velfsIsDirectoryExist(dir, a.c_str(), &exists);
        break;
      case 10: velfsDeleteFile(dir, a.c_str()); break;
      case 11: velfsDeleteDirectory(dir, a.c_str()); break;
      case 12: velfsRenameFile(dir, a.c_str(), b.c_str()); break;
      case 13: velfsCopyFile(dir, a.c_str(), b.c_str(), flag % 2); break;
      case 14: velfsMoveFile(dir, a.c_str(), b.c_str(), flag % 2); break;
      default:
        if (flag % 2 == 0) {
          velfsBeginTrans(dir);
        } else if (!velfsCommitTrans(dir)) {
          CloseAll();  // reopened: an open transaction is lost
          dir = velfsOpenDir(root.c_str());
        }
    }
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static const velfs_fuzz::Sandbox sandbox("database");
  sandbox.Clear();  // the image and any journal SQLite left beside it
  velfs_fuzz::Script script(data, size);
  Session session(script, sandbox.PathOf("store.db"));
  velfs_fuzz::WriteFile(session.root, script.Bytes(script.Number(1 << 20)));
  session.dir = velfsOpenDir(session.root.c_str());
  for (int step = 0; step < 256 && session.dir != nullptr && !script.empty(); ++step) {
    session.Step();
  }
  return 0;
}
