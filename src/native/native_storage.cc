// The native back-end: NativeStorage, NativeFile and NativeEnum over the host layer.
#include "native/native_storage.h"

#include <cstdio>
#include <iterator>
#include <limits>
#include <utility>

namespace velfs {
namespace {

// An open host file. The operations forward to the stream one to one: counts as fread/fwrite
// report them, `Seek` answers 0 or -1 (not the position), `Error` is the end-of-file indicator,
// set only once a read has run into the end. Positions are 64-bit underneath; where one does not
// fit the ABI's 32 bits, `Tell` answers -1 rather than a wrapped value.
class NativeFile final : public StorageFile {
 public:
  explicit NativeFile(host::Stream stream) : stream_(std::move(stream)) {}

  uint64_t Read(void* buffer, uint64_t size) override {
    return std::fread(buffer, 1, size, stream_.get());
  }
  uint64_t Write(const void* buffer, uint64_t size) override {
    return std::fwrite(buffer, 1, size, stream_.get());
  }
  int32_t Tell() override {
    const int64_t position = host::TellStream(stream_.get());
    return position > std::numeric_limits<int32_t>::max() ? -1 : static_cast<int32_t>(position);
  }
  int32_t Seek(int32_t offset, int32_t origin) override {
    return host::SeekStream(stream_.get(), offset, origin);
  }
  int32_t Error() override { return std::feof(stream_.get()); }

 private:
  host::Stream stream_;
};

// The listing of one host directory, searched lazily: the search starts at the first MoveNext
// and Reset drops it. "." and ".." are never reported; the order is the host's. Queries answer
// false before the first MoveNext and after the end.
class NativeEnum final : public StorageEnum {
 public:
  NativeEnum(std::string directoryPath, std::string relativePath)
      : dirPath_(std::move(directoryPath)), relPath_(std::move(relativePath)) {}

  bool MoveNext() override {
    host::DirectoryEntry next;
    do {
      if (ended_) return false;
      if (search_ == nullptr) search_ = host::OpenDirectorySearch(dirPath_);
      ended_ = search_ == nullptr || !host::NextDirectoryEntry(*search_, next);
      if (ended_) return false;
    } while (next.name == "." || next.name == "..");
    current_ = std::move(next);
    return true;
  }

  void Reset() override {
    search_.reset();
    current_ = host::DirectoryEntry();
    ended_ = false;
  }

  bool GetName(char** name) override {
    if (name == nullptr || !OnEntry()) return false;
    *name = CopyForHost(current_.name.data(), current_.name.size());
    return true;
  }

  bool GetFullName(char** name) override {
    if (name == nullptr || !OnEntry()) return false;
    std::string text = relPath_ + current_.name;
    if (IsDirectory() && (text.empty() || text.back() != '/')) text += '/';
    *name = CopyForHost(text.data(), text.size());
    return true;
  }

  bool IsDirectory() override { return OnEntry() && current_.isDirectory; }

 private:
  bool OnEntry() const { return search_ != nullptr && !ended_; }

  std::string dirPath_;  // the storage root followed by relPath
  std::string relPath_;  // the path as listed; prefixes every full name
  bool ended_ = false;
  host::DirectoryEntry current_;
  host::DirectorySearchHandle search_;  // null before the first MoveNext and after Reset
};

constexpr const char* kModeStrings[] = {"rb", "wb", "ab", "rb+", "wb+", "ab+"};

class NativeStorage final : public Storage {
 public:
  explicit NativeStorage(std::string root) : root_(std::move(root)) {}

  // Opens with the mode string of `mode`'s low three bits; 6 and 7 name none and fail. When the
  // first open fails, every mode value but 0 and 3 creates the missing parent directories (root
  // and file name excluded; levels that exist fail quietly) and tries once more.
  std::unique_ptr<StorageFile> CreateFile(const char* path, uint32_t mode) override {
    const uint32_t index = mode & 7;
    const char* modeString = index < std::size(kModeStrings) ? kModeStrings[index] : nullptr;
    const std::string relative(path);
    const std::string full = root_ + relative;
    const auto open = [&] {
      return modeString != nullptr ? host::OpenStream(full, modeString) : host::Stream();
    };
    host::Stream stream = open();
    if (!stream) {
      if (mode == 0 || mode == 3) return nullptr;  // the modes that only open existing files
      for (std::size_t slash = relative.find('/'); slash != std::string::npos;
           slash = relative.find('/', slash + 1)) {
        host::CreateDirectory(root_ + relative.substr(0, slash + 1));
      }
      stream = open();
    }
    if (!stream) return nullptr;
    return std::make_unique<NativeFile>(std::move(stream));
  }

  std::unique_ptr<StorageEnum> CreateEnum(const char* path) override {
    std::string directory = root_ + path;
    if (host::Stat(directory).kind != host::EntryKind::kDirectory) return nullptr;
    return std::make_unique<NativeEnum>(std::move(directory), path);
  }

  bool IsFileExist(const char* path, bool* exists) override {
    *exists = host::Stat(root_ + path).kind == host::EntryKind::kFile;
    return true;
  }

  bool IsDirectoryExist(const char* path, bool* exists) override {
    *exists = host::Stat(root_ + path).kind == host::EntryKind::kDirectory;
    return true;
  }

 private:
  const std::string root_;  // ends in '/'
};

}  // namespace

std::unique_ptr<Storage> OpenNativeStorage(const std::string& root, const host::EntryStatus& status) {
  if (status.kind != host::EntryKind::kDirectory) return nullptr;
  std::string withSlash = root;
  if (withSlash.empty() || withSlash.back() != '/') withSlash += '/';
  return std::make_unique<NativeStorage>(std::move(withSlash));
}

}  // namespace velfs
