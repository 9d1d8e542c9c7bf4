// The script of the API target, which the database target runs too: calls of every exported
// function with arbitrary path texts (embedded ':' and '\\', invalid UTF-8, thousands of bytes)
// over a host directory, a database and an archive root, full paths, the mount table and stubs.
// Every text that can reach the host file system is confined to the input's directory. Files,
// listings and stubs may outlive the directory handle or mount they were made through; every
// handle is closed when the session ends.
#ifndef VELFS_FUZZ_API_SESSION_H
#define VELFS_FUZZ_API_SESSION_H

#include <array>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_support.h"
#include "velfs.h"

namespace velfs_fuzz {

// Sizes beyond the 32-bit range; those between SQLite's row limit and 2^31 fail too, but only
// after a zero-filled buffer of that size, so the limits test tries one instead.
constexpr uint64_t kEdgeSizes[] = {0x80000000ull, 0xFFFFFFFFull, 0x100000000ull, UINT64_MAX};

struct Session {
  Session(const Sandbox& s, Script& input) : sandbox(s), script(input) {}
  const Sandbox& sandbox;
  Script& script;
  std::array<DirHandle*, 3> dirs{};
  std::array<FileHandle*, 4> files{};
  std::array<EnumHandle*, 2> enums{};
  std::vector<FileStub*> stubs;
  std::vector<std::string> mounts;

  ~Session() {
    for (FileStub* stub : stubs) velFSDeleteStub(stub);
    for (const std::string& mount : mounts) velFSUnmountPath(mount.c_str());
    for (DirHandle* dir : dirs) velfsCloseDir(dir);
    for (FileHandle* file : files) velfsCloseFile(file);
    for (EnumHandle* listing : enums) velfsCloseEnum(listing);
  }
  std::string Work(const std::string& text) { return sandbox.PathOf("work/" + text); }
  // One of the fixed roots, with or without a trailing ':', or any text in the directory.
  std::string Root(uint8_t choice, const std::string& text) {
    const char* roots[] = {"native", "store.db", "pack.zip", "store.db:", "pack.zip:"};
    return Work(choice % 6 < 5 ? roots[choice % 6] : text);
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
    FileHandle*& file = files[fileSlot % files.size()];
    EnumHandle*& listing = enums[enumSlot % enums.size()];
    bool exists = false;
    switch (operation % 16) {
      case 0:
        velfsCloseDir(dirs[std::max(slot, 0)]);
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
        velfsCloseFile(file);
        file = velfsCreateFileIndir(dir, a.c_str(), flag);
        break;
      case 5:
        velfsCloseFile(file);
        file = velfsCreateFile((number % 2 ? Root(flag, b) + ":" + a : Work(a)).c_str(), flag);
        break;
      case 6: {
        std::vector<char> buffer(number % (1 << 16));
        velfsRead(file, buffer.data(), buffer.size());
        velfsWrite(file, b.data(), b.size());
        velfsSeek(file, static_cast<int32_t>(number), flag % 5 - 1);
        velfsTell(file);
        velfsError(file);
        velfsResize(file, flag < 0xF0 ? number % (1 << 16) : kEdgeSizes[flag % 4]);
        break;
      }
      case 7:
        velfsCloseEnum(listing);
        listing = number % 2 ? velfsCreateEnum((Root(flag, b) + ":" + a).c_str())
                             : velfsCreateEnumIndir(dir, a.c_str());
        break;
      case 8:
        for (int steps = flag % 8; steps >= 0; --steps) {
          velfsMoveNext(listing);
          char* name = nullptr;
          if (velfsGetName(listing, &name)) std::free(name);
          if (velfsGetFullName(listing, &name)) std::free(name);
          velfsIsDirectory(listing);
        }
        velfsReset(listing);
        break;
      case 9:
        velFSMountPath(a.c_str(), Root(flag, b).c_str());
        mounts.push_back(a);
        break;
      case 10:
        if (!mounts.empty()) velFSUnmountPath(mounts[flag % mounts.size()].c_str());
        break;
      case 11: {
        std::vector<char> buffer(flag);
        velFSVelToSyspath(a.c_str(), buffer.empty() ? nullptr : buffer.data(), buffer.size());
        velFSCreateDirectory(Work(b).c_str());
        break;
      }
      case 12:
        if (FileStub* stub = velFSCreateStub(a.c_str(), flag)) stubs.push_back(stub);
        break;
      case 13:
        for (FileStub* stub : stubs) {
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
          velFSDeleteStub(stubs[flag % stubs.size()]);
          stubs.erase(stubs.begin() + flag % stubs.size());
        }
        break;
      default:
        velFSInitFileSystem();
        DllMain(nullptr, flag, nullptr);
    }
  }
};

// The fixed roots every input starts from: a directory and a database, each with a file at the
// top and one in a directory, and one of the archive seeds. `image`, when given, is the
// database's bytes instead.
inline void MakeRoots(const Sandbox& sandbox, const std::string* image = nullptr) {
  static std::string database, archive;
  const std::string work = sandbox.PathOf("work/");
  std::filesystem::create_directories(work + "native/docs");
  WriteFile(work + "native/a.txt", "alpha");
  WriteFile(work + "native/docs/b.txt", "beta");
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
  WriteFile(work + "store.db", image != nullptr ? *image : database);
  WriteFile(work + "pack.zip", archive);
}

}  // namespace velfs_fuzz

#endif  // VELFS_FUZZ_API_SESSION_H
