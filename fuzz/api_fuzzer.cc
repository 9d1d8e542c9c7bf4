// Fuzz target 3, the exported API: the input is a script (input_reader.h) of calls of every
// exported function with arbitrary path texts (embedded ':' and '\\', invalid UTF-8, texts of
// thousands of bytes) over a host directory, a database and an archive root, full paths, the
// mount table and the stub functions of the host I/O layer.
//
// Every text that can reach the host file system is joined to the input's own directory inside
// the sandbox and confined (FuzzSandbox::Confine), so that no input can create or truncate a file
// elsewhere. Handles are used as the Parts allow: files and listings made through a directory
// handle are closed before it, stubs before the mount they were opened through is removed, and
// everything is closed and unmounted when the input ends. Crashes, sanitizer reports and leaks
// are the findings.
#include <zip.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "fuzz_sandbox.h"
#include "input_reader.h"
#include "velfs.h"

namespace velfs::fuzz {
namespace {

constexpr uint32_t kMaxTransfer = 1u << 16;
constexpr int kMaxSteps = 256;

// The fixed files every input starts from, made once per process: the bytes of a database root
// and of an archive root, each holding a few files in a directory.
struct Fixtures {
  std::string database;
  std::string archive;
};

std::string MakeDatabaseBytes(const FuzzSandbox& sandbox) {
  const std::string path = sandbox.PathOf("pristine.db");
  DirHandle* dir = velfsOpenDir(path.c_str());
  for (const char* name : {"a.txt", "docs/b.txt", "docs/deep/c.bin"}) {
    FileHandle* file = velfsCreateFileIndir(dir, name, 1);
    velfsWrite(file, name, std::char_traits<char>::length(name));
    velfsCloseFile(file);
  }
  velfsCloseDir(dir);
  std::string bytes = ReadWholeFile(path);
  std::filesystem::remove(path);
  return bytes;
}

std::string MakeArchiveBytes(const FuzzSandbox& sandbox) {
  static constexpr std::array<std::pair<const char*, const char*>, 4> kMembers = {{
      {"a.txt", "alpha"}, {"docs/", ""}, {"docs/b.txt", "beta beta beta beta"}, {"Docs/C.TXT", "c"}}};
  const std::string path = sandbox.PathOf("pristine.zip");
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  for (const auto& [name, data] : kMembers) {
    const std::string_view text(data);
    if (text.empty()) {
      zip_dir_add(archive, std::string(name, std::char_traits<char>::length(name) - 1).c_str(),
                  ZIP_FL_ENC_RAW);
    } else {
      zip_source_t* source = zip_source_buffer(archive, data, text.size(), 0);
      zip_file_add(archive, name, source, ZIP_FL_ENC_RAW);
    }
  }
  zip_close(archive);
  std::string bytes = ReadWholeFile(path);
  std::filesystem::remove(path);
  return bytes;
}

// What one input holds open.
class Session {
 public:
  Session(const FuzzSandbox& sandbox, InputReader& input) : sandbox_(sandbox), input_(input) {}
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  void Step();

 private:
  struct OpenFile {
    FileHandle* handle = nullptr;
    int dir = -1;  // the directory slot it was made through; -1 for a full path
  };
  struct OpenEnum {
    EnumHandle* handle = nullptr;
    int dir = -1;
  };
  struct OpenStub {
    FileStub* stub = nullptr;
    std::string mount;  // the mount name it was opened through
  };

  std::string Work(const std::string& text) const {
    return sandbox_.PathOf("work/" + FuzzSandbox::Confine(text));
  }
  std::string Root();
  // A root path, ':' and a path inside the root, read in that order.
  std::string FullPath() {
    std::string path = Root();
    return path + ":" + Text();
  }
  DirHandle* Dir(int slot) { return slot < 0 ? nullptr : dirs_[static_cast<std::size_t>(slot)]; }
  std::string Text() { return FuzzSandbox::Confine(input_.Text()); }
  void CloseFile(OpenFile& file) {
    velfsCloseFile(std::exchange(file.handle, nullptr));
    file.dir = -1;
  }
  void CloseEnum(OpenEnum& listing) {
    velfsCloseEnum(std::exchange(listing.handle, nullptr));
    listing.dir = -1;
  }
  void CloseDir(int slot);
  void DeleteStub(OpenStub& stub) {
    velFSDeleteStub(std::exchange(stub.stub, nullptr));
    stub.mount.clear();
  }
  void Unmount(const std::string& name);
  void UseFile(FileHandle* file);
  void UseStub(const FileStub* stub);

  const FuzzSandbox& sandbox_;
  InputReader& input_;
  std::array<DirHandle*, 3> dirs_{};
  std::array<OpenFile, 4> files_{};
  std::array<OpenEnum, 2> enums_{};
  std::array<OpenStub, 2> stubs_{};
  std::set<std::string> mounts_;
};

Session::~Session() {
  for (OpenStub& stub : stubs_) DeleteStub(stub);
  while (!mounts_.empty()) Unmount(*mounts_.begin());
  for (int slot = 0; slot < static_cast<int>(dirs_.size()); ++slot) CloseDir(slot);
  for (OpenFile& file : files_) CloseFile(file);
  for (OpenEnum& listing : enums_) CloseEnum(listing);
}

// A root path: one of the three fixed roots (with or without the ':' a root may end in), or any
// text inside the input's directory.
std::string Session::Root() {
  switch (input_.Byte() % 7) {
    case 0:
      return Work("native");
    case 1:
      return Work("store.db");
    case 2:
      return Work("pack.zip");
    case 3:
      return Work("store.db") + ":";
    case 4:
      return Work("pack.zip") + ":";
    default:
      return Work(input_.Text());
  }
}

void Session::CloseDir(int slot) {
  for (OpenFile& file : files_) {
    if (file.dir == slot) CloseFile(file);
  }
  for (OpenEnum& listing : enums_) {
    if (listing.dir == slot) CloseEnum(listing);
  }
  velfsCloseDir(std::exchange(dirs_[static_cast<std::size_t>(slot)], nullptr));
}

// Part 2.1: a stub's file relies on its mount's storage; the host deletes its stubs first.
void Session::Unmount(const std::string& name) {
  for (OpenStub& stub : stubs_) {
    if (stub.stub != nullptr && stub.mount == name) DeleteStub(stub);
  }
  velFSUnmountPath(name.c_str());
  mounts_.erase(name);
}

void Session::UseFile(FileHandle* file) {
  switch (input_.Byte() % 7) {
    case 0: {
      std::vector<char> buffer(input_.Number(kMaxTransfer));
      velfsRead(file, buffer.data(), buffer.size());
      break;
    }
    case 1: {
      const std::string bytes = input_.Text();
      velfsWrite(file, bytes.data(), bytes.size());
      break;
    }
    case 2:
      velfsTell(file);
      velfsError(file);
      break;
    case 3: {
      const auto offset = static_cast<int32_t>(input_.Number(UINT32_MAX));
      velfsSeek(file, offset, static_cast<int32_t>(input_.Byte() % 5) - 1);
      break;
    }
    case 4:
      velfsResize(file, input_.Number(kMaxTransfer));
      break;
    case 5:
      velfsWrite(file, nullptr, 0);
      velfsRead(file, nullptr, 0);
      break;
    default:
      velfsSeek(file, 0, 2);
      velfsTell(file);
      break;
  }
}

void Session::UseStub(const FileStub* stub) {
  switch (input_.Byte() % 6) {
    case 0: {
      std::vector<char> buffer(input_.Number(kMaxTransfer));
      stub->read(stub->file, buffer.data(), buffer.size());
      break;
    }
    case 1: {
      const std::string bytes = input_.Text();
      stub->write(stub->file, bytes.data(), bytes.size());
      break;
    }
    case 2:
      stub->tell(stub->file);
      stub->error(stub->file);
      break;
    case 3: {
      const auto offset = static_cast<int32_t>(input_.Number(UINT32_MAX));
      stub->seek(stub->file, offset, static_cast<int32_t>(input_.Byte() % 5) - 1);
      break;
    }
    case 4:
      stub->resize(stub->file, input_.Number(kMaxTransfer));
      break;
    default:
      stub->read(nullptr, nullptr, 0);
      stub->seek(nullptr, 0, 0);
      break;
  }
}

void Session::Step() {
  bool exists = false;
  const int slot = input_.Byte() % 4 - 1;  // a directory slot; -1 stands for a null handle
  DirHandle* dir = Dir(slot);
  switch (input_.Byte() % 24) {
    case 0: {
      const std::size_t target = input_.Byte() % dirs_.size();
      CloseDir(static_cast<int>(target));
      dirs_[target] = velfsOpenDir(Root().c_str());
      break;
    }
    case 1:
      CloseDir(input_.Byte() % static_cast<int>(dirs_.size()));
      break;
    case 2: {
      const std::string path = Text();
      velfsIsFileExist(dir, path.c_str(), &exists);
      velfsIsDirectoryExist(dir, path.c_str(), &exists);
      break;
    }
    case 3:
      velfsDeleteFile(dir, Text().c_str());
      velfsDeleteDirectory(dir, Text().c_str());
      break;
    case 4: {
      const std::string from = Text();
      const std::string to = Text();
      switch (input_.Byte() % 3) {
        case 0:
          velfsRenameFile(dir, from.c_str(), to.c_str());
          break;
        case 1:
          velfsCopyFile(dir, from.c_str(), to.c_str(), input_.Byte() % 2 == 1);
          break;
        default:
          velfsMoveFile(dir, from.c_str(), to.c_str(), input_.Byte() % 2 == 1);
          break;
      }
      break;
    }
    case 5:
      velfsBeginTrans(dir);
      break;
    case 6:
      velfsCommitTrans(dir);
      break;
    case 7: {  // a full path: a root, ':' and a path inside it, or a host path
      OpenFile& file = files_[input_.Byte() % files_.size()];
      CloseFile(file);
      const std::string path = input_.Byte() % 2 == 0 ? FullPath() : Work(input_.Text());
      file.handle = velfsCreateFile(path.c_str(), input_.Byte());
      break;
    }
    case 8: {
      OpenFile& file = files_[input_.Byte() % files_.size()];
      CloseFile(file);
      const std::string path = Text();
      file.handle = velfsCreateFileIndir(dir, path.c_str(), input_.Byte());
      if (file.handle != nullptr) file.dir = slot;
      break;
    }
    case 9:
    case 10:
    case 11:
      UseFile(files_[input_.Byte() % files_.size()].handle);
      break;
    case 12:
      CloseFile(files_[input_.Byte() % files_.size()]);
      break;
    case 13: {
      OpenEnum& listing = enums_[input_.Byte() % enums_.size()];
      CloseEnum(listing);
      if (input_.Byte() % 2 == 0) {
        listing.handle = velfsCreateEnum(FullPath().c_str());
      } else {
        const std::string path = Text();
        listing.handle = velfsCreateEnumIndir(dir, path.c_str());
        if (listing.handle != nullptr) listing.dir = slot;
      }
      break;
    }
    case 14: {
      EnumHandle* listing = enums_[input_.Byte() % enums_.size()].handle;
      for (int steps = input_.Byte() % 8; steps >= 0; --steps) {
        velfsMoveNext(listing);
        char* name = nullptr;
        if (velfsGetName(listing, &name)) std::free(name);
        if (velfsGetFullName(listing, &name)) std::free(name);
        velfsIsDirectory(listing);
      }
      if (input_.Byte() % 4 == 0) velfsReset(listing);
      break;
    }
    case 15:
      CloseEnum(enums_[input_.Byte() % enums_.size()]);
      break;
    case 16: {
      const std::string name = input_.Text();
      const std::string path = input_.Byte() % 2 == 0 ? Root() : Work(input_.Text());
      velFSMountPath(name.c_str(), path.c_str());
      // The key the table files it under: the C string, with '\\' read as '/'.
      std::string key(name.c_str());
      for (char& c : key) c = c == '\\' ? '/' : c;
      if (!key.empty()) mounts_.insert(key);
      break;
    }
    case 17:
      if (!mounts_.empty()) {
        auto name = mounts_.begin();
        std::advance(name, input_.Byte() % mounts_.size());
        Unmount(*name);
      } else {
        velFSUnmountPath(input_.Text().c_str());
      }
      break;
    case 18: {
      const std::string path = input_.Text();
      std::vector<char> buffer(input_.Byte());
      velFSVelToSyspath(path.c_str(), buffer.empty() ? nullptr : buffer.data(), buffer.size());
      velFSVelToSyspath(path.c_str(), nullptr, 0);
      break;
    }
    case 19:
      velFSCreateDirectory(Work(input_.Text()).c_str());
      break;
    case 20: {
      OpenStub& stub = stubs_[input_.Byte() % stubs_.size()];
      DeleteStub(stub);
      const std::string text = Text();
      stub.stub = velFSCreateStub(text.c_str(), input_.Byte());
      if (stub.stub != nullptr) {
        // Part 2.2: the mount is named by the text up to its first ':', "app:" without one.
        std::string path(text.c_str());
        for (char& c : path) c = c == '\\' ? '/' : c;
        const std::size_t colon = path.find(':');
        stub.mount = colon == std::string::npos ? "app:" : path.substr(0, colon + 1);
      }
      break;
    }
    case 21: {
      const OpenStub& stub = stubs_[input_.Byte() % stubs_.size()];
      if (stub.stub != nullptr) UseStub(stub.stub);
      break;
    }
    case 22:
      DeleteStub(stubs_[input_.Byte() % stubs_.size()]);
      break;
    default:
      velFSInitFileSystem();
      DllMain(nullptr, input_.Byte(), nullptr);
      break;
  }
}

}  // namespace
}  // namespace velfs::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  using namespace velfs::fuzz;
  static const FuzzSandbox sandbox("api");
  static const Fixtures fixtures{MakeDatabaseBytes(sandbox), MakeArchiveBytes(sandbox)};
  sandbox.Clear();
  std::error_code ignored;
  std::filesystem::create_directories(sandbox.PathOf("work/native/docs"), ignored);
  WriteWholeFile(sandbox.PathOf("work/native/a.txt"), "alpha");
  WriteWholeFile(sandbox.PathOf("work/native/docs/b.txt"), "beta");
  WriteWholeFile(sandbox.PathOf("work/store.db"), fixtures.database);
  WriteWholeFile(sandbox.PathOf("work/pack.zip"), fixtures.archive);
  InputReader input(data, size);
  Session session(sandbox, input);
  for (int step = 0; step < kMaxSteps && !input.empty(); ++step) session.Step();
  return 0;
}
