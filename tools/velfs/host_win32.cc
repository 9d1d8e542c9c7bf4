// The host file system on Windows (host.h): the wide-character Win32 and C runtime calls, with
// UTF-8 paths converted by MultiByteToWideChar / WideCharToMultiByte (code page 65001) and the
// system's error codes turned into host::Error. The only file of the tool that includes a
// platform header on Windows.
#ifndef NOMINMAX
#define NOMINMAX
#endif
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <sys/stat.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "host.h"

namespace velfs::tool::host {

namespace {

std::wstring Wide(const std::string& text) {
  if (text.empty() || text.size() > static_cast<std::size_t>(INT_MAX)) return std::wstring();
  const int count = static_cast<int>(text.size());
  const int units = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), count, nullptr, 0);
  std::wstring wide(static_cast<std::size_t>(units), L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, text.data(), count, wide.data(), units);
  return wide;
}

std::string Utf8(const wchar_t* wide) {
  const int bytes = ::WideCharToMultiByte(CP_UTF8, 0, wide, -1, nullptr, 0, nullptr, nullptr);
  if (bytes <= 1) return std::string();
  std::string text(static_cast<std::size_t>(bytes), '\0');
  ::WideCharToMultiByte(CP_UTF8, 0, wide, -1, text.data(), bytes, nullptr, nullptr);
  text.resize(static_cast<std::size_t>(bytes) - 1);
  return text;
}

// A Win32 error code in the words of Error, told in the C runtime's words where one fits.
Error ErrorOfSystem(DWORD code) {
  switch (code) {
    case ERROR_SUCCESS:
      return {};
    case ERROR_FILE_NOT_FOUND:
    case ERROR_PATH_NOT_FOUND:
    case ERROR_INVALID_NAME:
    case ERROR_BAD_NETPATH:
      return ErrorOfErrno(ENOENT);
    case ERROR_DIRECTORY:
      return ErrorOfErrno(ENOTDIR);
    case ERROR_ACCESS_DENIED:
    case ERROR_SHARING_VIOLATION:
    case ERROR_LOCK_VIOLATION:
      return ErrorOfErrno(EACCES);
    case ERROR_FILE_EXISTS:
    case ERROR_ALREADY_EXISTS:
      return ErrorOfErrno(EEXIST);
    case ERROR_CANT_RESOLVE_FILENAME:
      return ErrorOfErrno(ELOOP);
    default:
      return {Error::Code::kOther, "system error " + std::to_string(code)};
  }
}

struct HandleCloser {
  void operator()(HANDLE handle) const { ::CloseHandle(handle); }
};

// The volume and file index of `path` (symbolic links followed); unknown when it cannot be
// opened for the query.
Identity IdentityOf(const std::wstring& path) {
  HANDLE opened = ::CreateFileW(path.c_str(), 0,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr);
  if (opened == INVALID_HANDLE_VALUE) return {};
  const std::unique_ptr<void, HandleCloser> handle(opened);
  BY_HANDLE_FILE_INFORMATION information;
  if (!::GetFileInformationByHandle(handle.get(), &information)) return {};
  const uint64_t index = (static_cast<uint64_t>(information.nFileIndexHigh) << 32) |
                         information.nFileIndexLow;
  return {information.dwVolumeSerialNumber, index};
}

Info InfoOf(const std::string& path, bool followLink) {
  Info info;
  const std::wstring wide = Wide(path);
  WIN32_FILE_ATTRIBUTE_DATA data;
  if (!::GetFileAttributesExW(wide.c_str(), GetFileExInfoStandard, &data)) {
    info.error = ErrorOfSystem(::GetLastError());
    return info;
  }
  if (!followLink && (data.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
    info.kind = Kind::kLink;
  } else if ((data.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
    info.kind = Kind::kDirectory;
  } else if ((data.dwFileAttributes & FILE_ATTRIBUTE_DEVICE) != 0) {
    info.kind = Kind::kOther;
  } else {
    info.kind = Kind::kFile;
    info.size = (static_cast<uint64_t>(data.nFileSizeHigh) << 32) | data.nFileSizeLow;
  }
  info.identity = IdentityOf(wide);
  return info;
}

}  // namespace

Info Examine(const std::string& path) { return InfoOf(path, true); }

Info ExamineLink(const std::string& path) { return InfoOf(path, false); }

Error FreeSpace(const std::string& path, uint64_t* bytes) {
  ULARGE_INTEGER available{};
  if (!::GetDiskFreeSpaceExW(Wide(path).c_str(), &available, nullptr, nullptr)) {
    return ErrorOfSystem(::GetLastError());
  }
  *bytes = available.QuadPart;
  return {};
}

bool CanRead(const std::string& path) { return ::_waccess(Wide(path).c_str(), 4) == 0; }

bool CanWrite(const std::string& path) { return ::_waccess(Wide(path).c_str(), 2) == 0; }

Error ListDirectory(const std::string& path, std::vector<std::string>* names) {
  names->clear();
  WIN32_FIND_DATAW found;
  HANDLE search = ::FindFirstFileW(Wide(path + "/*").c_str(), &found);
  if (search == INVALID_HANDLE_VALUE) {
    const DWORD code = ::GetLastError();
    // A folder with no entries at all (a drive's root can be one) is no error.
    if (code == ERROR_FILE_NOT_FOUND && Examine(path).kind == Kind::kDirectory) return {};
    if (code == ERROR_FILE_NOT_FOUND || code == ERROR_PATH_NOT_FOUND) {
      const Info info = Examine(path);
      if (info.kind != Kind::kMissing) return ErrorOfErrno(ENOTDIR);
    }
    return ErrorOfSystem(code);
  }
  do {
    const std::string name = Utf8(found.cFileName);
    if (name != "." && name != "..") names->push_back(name);
  } while (::FindNextFileW(search, &found));
  const DWORD code = ::GetLastError();
  ::FindClose(search);
  if (code != ERROR_NO_MORE_FILES) {
    names->clear();
    return ErrorOfSystem(code);
  }
  return {};
}

Error MakeDirectory(const std::string& path) {
  if (::CreateDirectoryW(Wide(path).c_str(), nullptr)) return {};
  const DWORD code = ::GetLastError();
  return code == ERROR_ALREADY_EXISTS ? Error{} : ErrorOfSystem(code);
}

Error MakeDirectories(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::u8path(path), error);
  if (!error) return {};
  return ErrorOfErrno(error.default_error_condition().value());
}

Error Rename(const std::string& from, const std::string& to) {
  return ::MoveFileExW(Wide(from).c_str(), Wide(to).c_str(), MOVEFILE_REPLACE_EXISTING)
             ? Error{}
             : ErrorOfSystem(::GetLastError());
}

void Remove(const std::string& path) { ::DeleteFileW(Wide(path).c_str()); }

std::FILE* OpenStream(const std::string& path, const char* mode, Error* error) {
  const std::wstring wide = Wide(path);
  std::FILE* stream = nullptr;
  if (std::strcmp(mode, "wbx") == 0) {
    // The C runtime's fopen knows no "x": the file is created exclusively by _wopen.
    const int descriptor = ::_wopen(wide.c_str(), _O_CREAT | _O_EXCL | _O_WRONLY | _O_BINARY,
                                    _S_IREAD | _S_IWRITE);
    if (descriptor >= 0) {
      stream = ::_fdopen(descriptor, "wb");
      if (stream == nullptr) ::_close(descriptor);
    }
  } else {
    const std::wstring wideMode(mode, mode + std::strlen(mode));
    stream = ::_wfopen(wide.c_str(), wideMode.c_str());
  }
  if (stream == nullptr) *error = ErrorOfErrno(errno);
  return stream;
}

// A file in the user's temporary folder, opened with "D": the C runtime deletes it on close.
std::FILE* OpenTemporaryStream(Error* error) {
  wchar_t folder[MAX_PATH + 1];
  wchar_t name[MAX_PATH + 1];
  const DWORD length = ::GetTempPathW(MAX_PATH + 1, folder);
  if (length == 0 || length > MAX_PATH || !::GetTempFileNameW(folder, L"vfs", 0, name)) {
    *error = ErrorOfSystem(::GetLastError());
    return nullptr;
  }
  std::FILE* stream = ::_wfopen(name, L"w+bD");
  if (stream == nullptr) {
    *error = ErrorOfErrno(errno);
    ::DeleteFileW(name);
  }
  return stream;
}

bool RegularFileSize(std::FILE* stream, uint64_t* size) {
  const auto handle = reinterpret_cast<HANDLE>(::_get_osfhandle(::_fileno(stream)));
  LARGE_INTEGER length;
  if (handle == INVALID_HANDLE_VALUE || ::GetFileType(handle) != FILE_TYPE_DISK ||
      !::GetFileSizeEx(handle, &length)) {
    return false;
  }
  *size = static_cast<uint64_t>(length.QuadPart);
  return true;
}

void UseBinaryStandardStreams() {
  ::_setmode(::_fileno(stdin), _O_BINARY);
  ::_setmode(::_fileno(stdout), _O_BINARY);
}

bool StandardErrorIsTerminal() { return ::_isatty(::_fileno(stderr)) != 0; }

unsigned long ProcessId() { return static_cast<unsigned long>(::GetCurrentProcessId()); }

}  // namespace velfs::tool::host
