// The host layer: every call the library makes of the operating system goes through here.
//
// One implementation file per platform holds all of them (host_posix.cc; a Win32 one beside
// it); nothing else in the library includes a platform header. The layer keeps no state of its
// own and caches nothing: each call asks the system afresh.
//
// Paths. Every path crosses this interface as UTF-8 with '/' separators, the way the library
// keeps it. An implementation reads a path exactly as the Win32 wide-character calls would after
// MultiByteToWideChar with code page 65001: each maximal ill-formed UTF-8 subsequence stands for
// one U+FFFD (text_conversion.h), so malformed input names the same entry on every platform. An
// implementation whose system calls take UTF-16 converts inside; names handed back (directory
// entries) are UTF-8.
//
// Threads. Every function may be called from any thread at any time; the objects returned
// (streams, searches, mappings) are each used by one thread at a time.
#ifndef VELFS_HOST_HOST_H
#define VELFS_HOST_HOST_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

namespace velfs::host {

// ---- Entries --------------------------------------------------------------------------------

enum class EntryKind : uint8_t {
  kNone,       // nothing at the path, or it cannot be queried
  kFile,       // any existing entry that is not a directory
  kDirectory,
};

struct EntryStatus {
  EntryKind kind = EntryKind::kNone;
  uint64_t size = 0;  // the length of a file in bytes; 0 for the other kinds
};

// What the entry at `path` is, and its size, in one query. Symbolic links are followed (a link
// reports its target). Never fails: a path that cannot be queried is kNone.
EntryStatus Stat(const std::string& path);

// Creates exactly one directory level at `path`. False when the entry exists already, the
// parent is missing, or the system refuses; nothing is created then.
bool CreateDirectory(const std::string& path);

// Reads up to `size` bytes of the existing file at `path`, from byte `offset` on, into `buffer`
// and answers how many were read (fewer at the end of the file); 0 when the file cannot be
// opened, positioned or read. Opens and closes the file within the call.
std::size_t ReadFileAt(const std::string& path, uint64_t offset, unsigned char* buffer,
                       std::size_t size);

// ---- Streams --------------------------------------------------------------------------------

struct StreamCloser {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};
// A C standard I/O stream, owned: closing it flushes and releases the file.
using Stream = std::unique_ptr<std::FILE, StreamCloser>;

// Opens the file at `path` with a binary C mode string ("rb", "wb", "ab", "rb+", "wb+", "ab+").
// Null when the system refuses (missing file for "rb"/"rb+", missing parent, no permission).
// The caller owns the stream. Reads and writes go through std::fread / std::fwrite.
Stream OpenStream(const std::string& path, const char* mode);

// The stream's position with 64 bits, or -1 on failure.
int64_t TellStream(std::FILE* stream);

// Moves the stream's position with 64 bits (origin SEEK_SET, SEEK_CUR or SEEK_END); 0 on
// success, -1 on failure (the position then stays).
int SeekStream(std::FILE* stream, int64_t offset, int origin);

// ---- Directory searches ---------------------------------------------------------------------

struct DirectoryEntry {
  std::string name;          // the entry's name as the file system stores it, UTF-8
  bool isDirectory = false;  // a symbolic link reports its target's kind
};

class DirectorySearch;
struct DirectorySearchCloser {
  void operator()(DirectorySearch* search) const;
};
// An open search over one directory, owned: destroying it releases the system's handle.
using DirectorySearchHandle = std::unique_ptr<DirectorySearch, DirectorySearchCloser>;

// Starts a search over every entry of `directory`, a path that ends in '/' (empty: the current
// directory). Null when the directory cannot be opened for reading.
DirectorySearchHandle OpenDirectorySearch(const std::string& directory);

// The next entry of the search in the system's order, "." and ".." included where the
// system reports them. False at the end, and on every later call.
bool NextDirectoryEntry(DirectorySearch& search, DirectoryEntry& entry);

// ---- Read-only mappings ---------------------------------------------------------------------

// A read-only view of every byte of one file, kept until the object is destroyed. Others may
// open the file for reading meanwhile. On Windows the file stays open, shared for reading only,
// so that nobody can open it for writing, replace or delete it while it is mapped; on POSIX,
// which has no such share modes, the view alone keeps the bytes reachable and no descriptor
// stays open. Movable, not copyable; an empty mapping owns nothing.
class FileMapping {
 public:
  // Maps the existing regular file at `path` whole. Empty when the file cannot be opened for
  // reading, has length 0 (nothing can be mapped), is longer than `maxSize` bytes, or the
  // system cannot map it.
  static FileMapping Map(const std::string& path, uint64_t maxSize);

  FileMapping() = default;
  FileMapping(FileMapping&& other) noexcept
      : view_(std::exchange(other.view_, nullptr)),
        size_(std::exchange(other.size_, 0)),
        file_(std::exchange(other.file_, nullptr)) {}
  FileMapping& operator=(FileMapping&& other) noexcept {
    if (this != &other) {
      Unmap();
      view_ = std::exchange(other.view_, nullptr);
      size_ = std::exchange(other.size_, 0);
      file_ = std::exchange(other.file_, nullptr);
    }
    return *this;
  }
  FileMapping(const FileMapping&) = delete;
  FileMapping& operator=(const FileMapping&) = delete;
  ~FileMapping();  // unmaps the view

  explicit operator bool() const { return view_ != nullptr; }
  const unsigned char* view() const { return view_; }
  uint64_t size() const { return size_; }

  // Tells the system that the bytes from `offset` on, `length` of them, will not be read again
  // soon: the pages wholly inside that range may leave the process's memory. The view stays
  // valid and unchanged, and a later read of those bytes brings them back from the file. Never
  // fails; the system may ignore the advice.
  void Release(uint64_t offset, uint64_t length) const;

 private:
  FileMapping(const unsigned char* view, uint64_t size, void* file = nullptr)
      : view_(view), size_(size), file_(file) {}
  void Unmap() noexcept;

  const unsigned char* view_ = nullptr;
  uint64_t size_ = 0;
  void* file_ = nullptr;  // the file held open while it is mapped, where the system has one
};

// ---- Loading ----------------------------------------------------------------------------------

// Called once, when the library is loaded into a process, with the library's own module
// handle (its load address). Defined above this layer, by the exported functions. Where the
// system loader calls the exported DllMain itself (Windows), the implementation does not call
// this; elsewhere (ELF) host_posix.cc calls it from a load-time constructor.
void OnLibraryLoad(void* module);

}  // namespace velfs::host

#endif  // VELFS_HOST_HOST_H
