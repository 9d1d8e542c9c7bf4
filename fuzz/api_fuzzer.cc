// The exported API: the input is a script of calls of every exported function with arbitrary
// path texts (embedded ':' and '\\', invalid UTF-8, thousands of bytes) over a host directory, a
// database and an archive root, full paths, the mount table and stubs. Every text that can reach
// the host file system is confined to the input's directory. Handles are used as the contract
// allows: what was made through a directory handle is closed before it, stubs before their mount
// is removed, and everything when the input ends. Crashes, sanitizer reports and leaks are the
// findings.
#include <array>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "velfs.h"

namespace {

using velfs_fuzz::Sandbox;

template <typename Handle>
struct Made {
  Handle* handle = nullptr;
  int dir = -1;  // the directory slot it was made through
};

struct Session {
  Session(const Sandbox& s, velfs_fuzz::Script& input) : sandbox(s), script(input) {}
  const Sandbox& sandbox;
  velfs_fuzz::Script& script;
  std::array<DirHandle*, 3> dirs{};
  std::array<Made<FileHandle>, 4> files{};
  std::array<Made<EnumHandle>, 2> enums{};
  std::map<FileStub*, std::string> stubs;  // stub -> the mount it was opened through
  std::vector<std::string> mounts;

  ~Session() {
    for (const auto& [stub, mount] : stubs) velFSDeleteStub(stub);
    for (const std::string& mount : mounts) velFSUnmountPath(mount.c_str());
    for (int slot = 0; slot < 3; ++slot) CloseDir(slot);
    for (auto& file : files) velfsCloseFile(file.handle);
    for (auto& listing : enums) velfsCloseEnum(listing.handle);
  }
  std::string Work(const std::string& text) { return sandbox.PathOf("work/" + text); }
  // One of the fixed roots, with or without a trailing ':', or any text in the directory.
  std::string Root(uint8_t choice, const std::string& text) {
    const char* roots[] = {"native", "store.db", "pack.zip", "store.db:", "pack.zip:"};
    return Work(choice % 6 < 5 ? roots[choice % 6] : text);
  }
  // The name the mount table files a text under: the C string, with '\\' read as '/'.
  static std::string MountKey(const std::string& text) {
    std::string key(text.c_str());
    for (char& c : key) c = c == '\\' ? '/' : c;
    return key;
  }
  void CloseDir(int slot) {
    for (auto& file : files) {
      if (file.dir == slot) velfsCloseFile(std::exchange(file.handle, nullptr));
    }
    for (auto& listing : enums) {
      if (listing.dir == slot) velfsCloseEnum(std::exchange(listing.handle, nullptr));
    }
    velfsCloseDir(std::exchange(dirs[slot], nullptr));
  }
  // One step: directory slot (0: a null handle), operation, file and listing slots, two texts,
  // a number and a flag byte, always all read.
  void Step() {
    const int slot = script.Byte() % 4 - 1;
    const uint8_t operation = script.Byte(), fileSlot = script.Byte(), enumSlot = script.Byte();
    const std::string a = Sandbox::Confine(script.Text()), b = Sandbox::Confine(script.Text());
    const uint32_t number = script.Number(UINT32_MAX);
    const uint8_t flag = script.Byte();
    DirHandle* dir = slot < 0 ? nullptr : dirs[slot];
    auto& file = files[fileSlot % files.size()];
    auto& listing = enums[enumSlot % enums.size()];
    bool exists = false;
    switch (operation % 16) {
      case 0:
        CloseDir(std::max(slot, 0));
        dirs[std::max(slot, 0)] = velfsOpenDir(Root(flag, a).c_str());
        break;
      case 1:
        velfsIsFileExist(dir, a.c_str(), &exists);
        velfsIsDirectoryExist(dir, a.c_str(), &exists);
        velfsDeleteFile(dir, a.c_str());
        break;
      case 2:
        velfsRenameFile(dir, a.c_str(), b.c_str());
        velfsCopyFile(dir, a.c_str(), b.c_str(), flag % 2);
        velfsMoveFile(dir, b.c_str(), a.c_str(), flag / 2 % 2);
        break;
      case 3:
        velfsDeleteDirectory(dir, a.c_str());
        flag % 2 ? velfsBeginTrans(dir) : velfsCommitTrans(dir);
        break;
      case 4:
        velfsCloseFile(file.handle);
        file = {velfsCreateFileIndir(dir, a.c_str(), flag), slot};
        break;
      case 5:
        velfsCloseFile(file.handle);
        file = {velfsCreateFile((number % 2 ? Root(flag, b) + ":" + a : Work(a)).c_str(), flag), -1};
        break;
      case 6: {
        std::vector<char> buffer(number % (1 << 16));
        velfsRead(file.handle, buffer.data(), buffer.size());
        velfsWrite(file.handle, b.data(), b.size());
        velfsSeek(file.handle, static_cast<int32_t>(number), flag % 5 - 1);
        velfsTell(file.handle);
        velfsError(file.handle);
        velfsResize(file.handle, number % (1 << 16));
        break;
      }
      case 7:
        velfsCloseEnum(listing.handle);
        listing = number % 2 ? Made<EnumHandle>{velfsCreateEnum((Root(flag, b) + ":" + a).c_str())}
                             : Made<EnumHandle>{velfsCreateEnumIndir(dir, a.c_str()), slot};
        break;
      case 8:
        for (int steps = flag % 8; steps >= 0; --steps) {
          velfsMoveNext(listing.handle);
          char* name = nullptr;
          if (velfsGetName(listing.handle, &name)) std::free(name);
          if (velfsGetFullName(listing.handle, &name)) std::free(name);
          velfsIsDirectory(listing.handle);
        }
        velfsReset(listing.handle);
        break;
      case 9:
        velFSMountPath(a.c_str(), Root(flag, b).c_str());
        mounts.push_back(MountKey(a));
        break;
      case 10:
        if (!mounts.empty()) {
          const std::string name = mounts[flag % mounts.size()];
          // A stub's file lives on its mount's storage: the stub goes first.
          for (auto stub = stubs.begin(); stub != stubs.end();) {
            stub = stub->second == name ? (velFSDeleteStub(stub->first), stubs.erase(stub))
                                        : std::next(stub);
          }
          velFSUnmountPath(name.c_str());
        }
        break;
      case 11: {
        std::vector<char> buffer(flag);
        velFSVelToSyspath(a.c_str(), buffer.empty() ? nullptr : buffer.data(), buffer.size());
        velFSCreateDirectory(Work(b).c_str());
        break;
      }
      case 12:
        if (FileStub* stub = velFSCreateStub(a.c_str(), flag)) {
          const std::string path = MountKey(a);
          const std::size_t colon = path.find(':');
          stubs[stub] = colon == std::string::npos ? "app:" : path.substr(0, colon + 1);
        }
        break;
      case 13:
        for (const auto& [stub, mount] : stubs) {
          char buffer[64];
          stub->read(stub->file, buffer, flag % sizeof buffer);
          stub->write(stub->file, b.data(), b.size());
          stub->seek(stub->file, static_cast<int32_t>(number), flag % 5 - 1);
          stub->tell(stub->file);
          stub->error(stub->file);
          stub->resize(stub->file, 0);
        }
        break;
      case 14:
        if (!stubs.empty()) {
          velFSDeleteStub(stubs.begin()->first);
          stubs.erase(stubs.begin());
        }
        break;
      default:
        velFSInitFileSystem();
        DllMain(nullptr, flag, nullptr);
    }
  }
};

// The fixed roots every input starts from: a directory and a database, each with a file at the
// top and one in a directory, and one of the archive seeds.
void MakeRoots(const Sandbox& sandbox) {
  static std::string database, archive;
  const std::string work = sandbox.PathOf("work/");
  std::filesystem::create_directories(work + "native/docs");
  velfs_fuzz::WriteFile(work + "native/a.txt", "alpha");
  velfs_fuzz::WriteFile(work + "native/docs/b.txt", "beta");
  if (database.empty()) {
    DirHandle* dir = velfsOpenDir((work + "store.db").c_str());
    for (const char* name : {"a.txt", "docs/b.txt"}) {
      FileHandle* file = velfsCreateFileIndir(dir, name, 1);
      velfsWrite(file, name, 5);
      velfsCloseFile(file);
    }
    velfsCloseDir(dir);
    std::ifstream in(work + "store.db", std::ios::binary);
    database.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    std::ifstream zip(VELFS_SEED_ARCHIVE, std::ios::binary);
    archive.assign(std::istreambuf_iterator<char>(zip), std::istreambuf_iterator<char>());
  }
  velfs_fuzz::WriteFile(work + "store.db", database);
  velfs_fuzz::WriteFile(work + "pack.zip", archive);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static const Sandbox sandbox("api");
  sandbox.Clear();
  MakeRoots(sandbox);
  velfs_fuzz::Script script(data, size);
  Session session(sandbox, script);
  for (int step = 0; step < 256 && !script.empty(); ++step) session.Step();
  return 0;
}
