// The host layer on Windows (host.h): every system call the library makes, and the only file of
// the library that includes <windows.h>.
//
// Paths. The library's UTF-8 paths reach the system through the wide-character calls only:
// WidePath converts with MultiByteToWideChar, code page 65001 and flags 0, so an ill-formed
// UTF-8 sequence is not an error but names the entry with U+FFFD in its place; names the system
// hands back go through WideCharToMultiByte the same way. The system reads '/' as a separator,
// so paths are passed on as they are.
//
//   Stat                  GetFileAttributesW (the kind), GetFileAttributesExW (a file's size)
//   CreateDirectory       CreateDirectoryW, no security attributes: one level
//   ReadFileAt            _wfopen "rb", _fseeki64, fread
//   OpenStream            _wfopen; positions through _ftelli64 / _fseeki64 (64 bits)
//   directory searches    _wfindfirst64i32 / _wfindnext64i32 / _findclose
//   FileMapping           CreateFileW, GetFileSizeEx, CreateFileMappingW, MapViewOfFile;
//                         UnmapViewOfFile and CloseHandle when it is destroyed; Release through
//                         VirtualUnlock
//
// The searches use the wide forms of the C runtime's find functions: the narrow ones would read
// and return names in the process's ANSI code page, which is not UTF-8 on most systems.
//
// Loading. The system loader calls the exported DllMain itself when it maps velfs.dll, so this
// layer has no load-time hook and never calls OnLibraryLoad.
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>
// <windows.h> names CreateDirectoryW CreateDirectory; this layer's function of that name wins.
#undef CreateDirectory

#include <io.h>

#include <algorithm>
#include <climits>
#include <cwchar>
#include <string_view>
#include <utility>

#include "host/host.h"

namespace velfs::host {
namespace {

// The system's reading of a UTF-8 text: MultiByteToWideChar with code page 65001 and flags 0
// into a zeroed buffer one unit longer than the byte count (UTF-8 never yields more units than
// bytes), the result ending at its first zero unit. A text that the call refuses, or one too
// long for its signed 32-bit count, reads as the empty string.
std::wstring WidePath(std::string_view text) {
  if (text.empty() || text.size() > static_cast<std::size_t>(INT_MAX)) return std::wstring();
  std::wstring wide(text.size() + 1, L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), wide.data(),
                        static_cast<int>(text.size()));
  wide.resize(std::wcslen(wide.c_str()));
  return wide;
}

// A name from the system as UTF-8: WideCharToMultiByte with code page 65001, flags 0 and no
// default character into a zeroed buffer of three bytes per unit (a surrogate pair, two units,
// yields four bytes), the result ending at its first NUL.
std::string Utf8Name(const wchar_t* units) {
  const std::size_t count = std::wcslen(units);
  if (count == 0 || count > static_cast<std::size_t>(INT_MAX / 3)) return std::string();
  std::string narrow(3 * count + 1, '\0');
  ::WideCharToMultiByte(CP_UTF8, 0, units, static_cast<int>(count), narrow.data(),
                        static_cast<int>(3 * count), nullptr, nullptr);
  narrow.resize(std::char_traits<char>::length(narrow.c_str()));
  return narrow;
}

struct HandleCloser {
  void operator()(HANDLE handle) const { ::CloseHandle(handle); }
};
using UniqueHandle = std::unique_ptr<void, HandleCloser>;

}  // namespace

EntryStatus Stat(const std::string& path) {
  const std::wstring wide = WidePath(path);
  const DWORD attributes = ::GetFileAttributesW(wide.c_str());
  if (attributes == INVALID_FILE_ATTRIBUTES) return {};
  if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return {EntryKind::kDirectory, 0};
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!::GetFileAttributesExW(wide.c_str(), GetFileExInfoStandard, &data)) {
    return {EntryKind::kFile, 0};
  }
  return {EntryKind::kFile, (static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow};
}

bool CreateDirectory(const std::string& path) {
  return ::CreateDirectoryW(WidePath(path).c_str(), nullptr) != 0;
}

std::size_t ReadFileAt(const std::string& path, uint64_t offset, unsigned char* buffer,
                       std::size_t size) {
  const Stream stream(::_wfopen(WidePath(path).c_str(), L"rb"));
  if (stream == nullptr || ::_fseeki64(stream.get(), static_cast<int64_t>(offset), SEEK_SET) != 0) {
    return 0;
  }
  return std::fread(buffer, 1, size, stream.get());
}

Stream OpenStream(const std::string& path, const char* mode) {
  // The mode strings are ASCII: each byte is its own UTF-16 unit.
  const std::wstring wideMode(mode, mode + std::char_traits<char>::length(mode));
  return Stream(::_wfopen(WidePath(path).c_str(), wideMode.c_str()));
}

int64_t TellStream(std::FILE* stream) { return ::_ftelli64(stream); }

int SeekStream(std::FILE* stream, int64_t offset, int origin) {
  return ::_fseeki64(stream, offset, origin) == 0 ? 0 : -1;
}

// One open _wfindfirst64i32 search. The find call delivers the first entry together with the
// handle, so that entry waits in `current_` until the first Next. A search over an existing
// directory in which nothing matches holds no handle and simply ends.
class DirectorySearch {
 public:
  DirectorySearch(intptr_t handle, const _wfinddata64i32_t& first)
      : handle_(handle), current_(first), firstPending_(handle != -1) {}
  ~DirectorySearch() { Close(); }
  DirectorySearch(const DirectorySearch&) = delete;
  DirectorySearch& operator=(const DirectorySearch&) = delete;

  bool Next(DirectoryEntry& entry) {
    if (handle_ == -1) return false;
    if (!firstPending_ && ::_wfindnext64i32(handle_, &current_) != 0) {
      Close();
      return false;
    }
    firstPending_ = false;
    entry.name = Utf8Name(current_.name);
    entry.isDirectory = (current_.attrib & _A_SUBDIR) != 0;
    return true;
  }

 private:
  void Close() {
    if (handle_ != -1) ::_findclose(handle_);
    handle_ = -1;
  }

  intptr_t handle_;  // -1 once the search has ended
  _wfinddata64i32_t current_;
  bool firstPending_;
};

void DirectorySearchCloser::operator()(DirectorySearch* search) const { delete search; }

DirectorySearchHandle OpenDirectorySearch(const std::string& directory) {
  _wfinddata64i32_t first{};
  const intptr_t handle = ::_wfindfirst64i32(WidePath(directory + "*.*").c_str(), &first);
  // The find call fails alike for a directory that cannot be searched and for one in which
  // nothing matches; only the second is a search, an empty one.
  if (handle == -1 && Stat(directory.empty() ? "." : directory).kind != EntryKind::kDirectory) {
    return nullptr;
  }
  return DirectorySearchHandle(new DirectorySearch(handle, first));
}

bool NextDirectoryEntry(DirectorySearch& search, DirectoryEntry& entry) {
  return search.Next(entry);
}

// The file stays open for as long as it is mapped, shared for reading only: other processes may
// read the archive meanwhile, but none can open it for writing, replace or delete it. The
// mapping object is closed at once; the view alone keeps it alive.
FileMapping FileMapping::Map(const std::string& path, uint64_t maxSize) {
  HANDLE opened = ::CreateFileW(WidePath(path).c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                                OPEN_EXISTING, FILE_FLAG_SEQUENTIAL_SCAN | FILE_ATTRIBUTE_NORMAL,
                                nullptr);
  if (opened == INVALID_HANDLE_VALUE) return {};
  UniqueHandle file(opened);
  LARGE_INTEGER length;
  if (!::GetFileSizeEx(file.get(), &length) || length.QuadPart <= 0 ||
      static_cast<uint64_t>(length.QuadPart) > maxSize) {
    return {};
  }
  const UniqueHandle section(
      ::CreateFileMappingW(file.get(), nullptr, PAGE_READONLY, 0, 0, nullptr));
  if (section == nullptr) return {};
  const void* view = ::MapViewOfFile(section.get(), FILE_MAP_READ, 0, 0, 0);
  if (view == nullptr) return {};
  return FileMapping(static_cast<const unsigned char*>(view),
                     static_cast<uint64_t>(length.QuadPart), file.release());
}

FileMapping::~FileMapping() { Unmap(); }

// VirtualUnlock of pages that are not locked removes them from the process's working set; the
// call then answers ERROR_NOT_LOCKED, which is the expected outcome here.
void FileMapping::Release(uint64_t offset, uint64_t length) const {
  if (view_ == nullptr || offset >= size_) return;
  SYSTEM_INFO system;
  ::GetSystemInfo(&system);
  const uint64_t page = system.dwPageSize;
  const uint64_t start = (offset + page - 1) / page * page;  // only whole pages
  const uint64_t end = std::min(size_, offset + length) / page * page;
  if (start >= end) return;
  ::VirtualUnlock(const_cast<unsigned char*>(view_) + start, static_cast<SIZE_T>(end - start));
}

void FileMapping::Unmap() noexcept {
  if (view_ != nullptr) ::UnmapViewOfFile(view_);
  if (file_ != nullptr) ::CloseHandle(file_);
  view_ = nullptr;
  size_ = 0;
  file_ = nullptr;
}

}  // namespace velfs::host
