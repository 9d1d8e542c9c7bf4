// The host file system as the velfs tool sees it: every platform call of the tool goes through
// these functions, and host_posix.cc is their only implementation here (a build for another
// platform supplies its own twin of that file). Paths cross this interface as UTF-8 with '/' as
// the separator; an implementation that needs another encoding converts inside.
//
// Contract shared by every function: nothing throws; a failure is answered as the function says
// (an Error, a null stream, false), never by ending the process; the caller owns every stream it
// receives and closes it with std::fclose. The functions keep no state and may be called from
// any thread.
#ifndef VELFS_TOOLS_HOST_H
#define VELFS_TOOLS_HOST_H

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace velfs::tool::host {

// Why a host call failed: the causes the tool's messages tell apart, and the system's own words
// for it ("No such file or directory").
struct Error {
  enum class Code { kNone, kNotFound, kNotDirectory, kAccess, kExists, kLoop, kOther };
  Code code = Code::kNone;
  std::string text;

  explicit operator bool() const { return code != Code::kNone; }
};

// An errno value of the C runtime in the words of Error; 0 is no error. Both platforms' C
// runtimes report through errno, so the mapping is one.
inline Error ErrorOfErrno(int number) {
  Error error;
  switch (number) {
    case 0:
      return error;
    case ENOENT:
      error.code = Error::Code::kNotFound;
      break;
    case ENOTDIR:
      error.code = Error::Code::kNotDirectory;
      break;
    case EACCES:
    case EPERM:
      error.code = Error::Code::kAccess;
      break;
    case EEXIST:
      error.code = Error::Code::kExists;
      break;
    case ELOOP:
      error.code = Error::Code::kLoop;
      break;
    default:
      error.code = Error::Code::kOther;
      break;
  }
  error.text = std::strerror(number);
  return error;
}

enum class Kind { kMissing, kDirectory, kFile, kLink, kOther };  // kFile: a regular file

// Which file a path reaches: two paths with the same known identity are the same file.
struct Identity {
  uint64_t device = 0;
  uint64_t inode = 0;

  bool Known() const { return inode != 0; }
  bool operator==(const Identity& other) const {
    return Known() && device == other.device && inode == other.inode;
  }
};

struct Info {
  Kind kind = Kind::kMissing;  // kMissing when the entry cannot be examined; `error` says why
  uint64_t size = 0;           // regular files only
  Identity identity;
  Error error;
};

// What `path` is, following symbolic links.
Info Examine(const std::string& path);
// What `path` is without following a last symbolic link (Kind::kLink for a link).
Info ExamineLink(const std::string& path);
// The bytes that an unprivileged process may still write to the file system holding `path`
// (an existing directory or file).
Error FreeSpace(const std::string& path, uint64_t* bytes);
// Whether this process may read (write) the entry at `path`; false when it does not exist.
bool CanRead(const std::string& path);
bool CanWrite(const std::string& path);

// The names in directory `path`, without "." and "..", in the order the system gives them.
// Answers an Error (and no names) when the directory cannot be read.
Error ListDirectory(const std::string& path, std::vector<std::string>* names);
// Makes directory `path`; an existing directory is no error.
Error MakeDirectory(const std::string& path);
// Makes `path` and every missing directory above it.
Error MakeDirectories(const std::string& path);
// Renames `from` to `to`, replacing a file `to`.
Error Rename(const std::string& from, const std::string& to);
// Removes the file `path`; a missing file is no error (the tool removes only what it made).
void Remove(const std::string& path);

// Opens `path` as a stdio stream: mode "rb" reads, "wb" creates or empties, "wbx" creates and
// answers Code::kExists when the file exists. Null (and `error` filled) on failure.
std::FILE* OpenStream(const std::string& path, const char* mode, Error* error);
// An anonymous temporary file open for reading and writing, removed when closed; null on failure.
std::FILE* OpenTemporaryStream(Error* error);
// The size of a stream's regular file; false for a pipe, a terminal or a failure.
bool RegularFileSize(std::FILE* stream, uint64_t* size);
// The last error of the C library in the words of Error: errno, on every platform; a failure
// that left errno at 0 is still an error.
inline Error LastError() {
  const int number = errno;
  Error error = ErrorOfErrno(number);
  if (number == 0) error = {Error::Code::kOther, std::strerror(0)};
  return error;
}

// Makes standard input and output carry bytes unchanged (cat and get write binary files there).
// POSIX streams already do; a platform with text-mode streams switches them here.
void UseBinaryStandardStreams();
// Whether standard error is a terminal (the progress bar is drawn only there).
bool StandardErrorIsTerminal();
// This process's id, for temporary names that no other velfs process uses at the same time.
unsigned long ProcessId();

}  // namespace velfs::tool::host

#endif  // VELFS_TOOLS_HOST_H
