// The platform seam: every call the library makes of the host file system goes through here.
//
// The interface has the shape of the Windows file calls (wide UTF-16 paths, Windows
// file attributes, find-first/find-next over a "*.*" pattern), so the rest of the library is
// written once; host_file_system_posix.cc implements it over POSIX, and a Win32 implementation
// can sit beside it. Paths use '/'.
#ifndef VELFS_NATIVE_HOST_FILE_SYSTEM_H
#define VELFS_NATIVE_HOST_FILE_SYSTEM_H

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace velfs::host {

// GetFileAttributesW's answer for a path that cannot be queried, and its directory bit.
inline constexpr uint32_t kInvalidFileAttributes = 0xFFFFFFFF;
inline constexpr uint32_t kFileAttributeDirectory = 0x10;

// GetFileAttributesW: the attributes of the entry at `path` (symbolic links are followed), or
// kInvalidFileAttributes.
uint32_t GetFileAttributes(const std::u16string& path);

// CreateDirectoryW without security attributes: creates exactly one level; fails when the entry
// exists or the parent is missing.
bool CreateDirectory(const std::u16string& path);

// _wfopen: a standard I/O stream on `path` with a mode string such as u"rb+", or null.
struct StreamCloser {
  void operator()(std::FILE* stream) const { std::fclose(stream); }
};
using Stream = std::unique_ptr<std::FILE, StreamCloser>;
Stream OpenStream(const std::u16string& path, const char16_t* mode);

// ftell / fseek with 64-bit positions: -1 on failure, and 0 or -1.
int64_t TellStream(std::FILE* stream);
int SeekStream(std::FILE* stream, int64_t offset, int origin);

// _findfirst64i32 / _findnext64i32 / _findclose. `pattern` is a directory path followed by a
// name pattern in which '*' matches any run of characters and '?' one character ("*.*" matches
// every entry, as on Windows). Names are the bytes the file system stores; `attributes` has
// kFileAttributeDirectory for a directory (a symbolic link reports its target's kind).
struct FindData {
  uint32_t attributes = 0;
  std::string name;
};
class Search;
struct SearchCloser {
  void operator()(Search* search) const;
};
using SearchHandle = std::unique_ptr<Search, SearchCloser>;
// The open search and its first entry, or null when the directory cannot be searched or has
// no matching entry.
SearchHandle FindFirst(const std::string& pattern, FindData& data);
// The next entry; false at the end.
bool FindNext(Search& search, FindData& data);

}  // namespace velfs::host

#endif  // VELFS_NATIVE_HOST_FILE_SYSTEM_H
