// The host file system on POSIX systems: stat, statvfs, access, opendir, mkdir, rename, fopen, isatty,
// with errno turned into host::Error. The only file of the tool that includes a platform header.
#include <dirent.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

#include "host.h"

namespace velfs::tool::host {

namespace {

Info InfoOf(int result, const struct stat& status) {
  Info info;
  if (result != 0) {
    info.error = ErrorOfErrno(errno);
    return info;
  }
  if (S_ISDIR(status.st_mode)) {
    info.kind = Kind::kDirectory;
  } else if (S_ISREG(status.st_mode)) {
    info.kind = Kind::kFile;
    info.size = static_cast<uint64_t>(status.st_size);
  } else if (S_ISLNK(status.st_mode)) {
    info.kind = Kind::kLink;
  } else {
    info.kind = Kind::kOther;
  }
  info.identity = {static_cast<uint64_t>(status.st_dev), static_cast<uint64_t>(status.st_ino)};
  return info;
}

struct CloseDirectory {
  void operator()(DIR* directory) const { ::closedir(directory); }
};

}  // namespace

Info Examine(const std::string& path) {
  struct stat status {};
  const int result = ::stat(path.c_str(), &status);
  return InfoOf(result, status);
}

Info ExamineLink(const std::string& path) {
  struct stat status {};
  const int result = ::lstat(path.c_str(), &status);
  return InfoOf(result, status);
}

Error FreeSpace(const std::string& path, uint64_t* bytes) {
  struct statvfs status {};
  if (::statvfs(path.c_str(), &status) != 0) return ErrorOfErrno(errno);
  *bytes = static_cast<uint64_t>(status.f_bavail) * static_cast<uint64_t>(status.f_frsize);
  return {};
}

bool CanRead(const std::string& path) { return ::access(path.c_str(), R_OK) == 0; }

bool CanWrite(const std::string& path) { return ::access(path.c_str(), W_OK) == 0; }

Error ListDirectory(const std::string& path, std::vector<std::string>* names) {
  names->clear();
  const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(path.c_str()));
  if (!directory) return ErrorOfErrno(errno);
  errno = 0;
  while (const dirent* entry = ::readdir(directory.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names->push_back(name);
  }
  if (errno != 0) {
    names->clear();
    return ErrorOfErrno(errno);
  }
  return {};
}

Error MakeDirectory(const std::string& path) {
  if (::mkdir(path.c_str(), 0777) == 0 || errno == EEXIST) return {};
  return ErrorOfErrno(errno);
}

Error MakeDirectories(const std::string& path) {
  std::error_code error;
  std::filesystem::create_directories(path, error);
  if (!error) return {};
  // The error code of the standard library is the system's errno here.
  return ErrorOfErrno(error.value());
}

Error Rename(const std::string& from, const std::string& to) {
  return std::rename(from.c_str(), to.c_str()) == 0 ? Error{} : ErrorOfErrno(errno);
}

void Remove(const std::string& path) { ::unlink(path.c_str()); }

std::FILE* OpenStream(const std::string& path, const char* mode, Error* error) {
  std::FILE* stream = std::fopen(path.c_str(), mode);
  if (stream == nullptr) *error = ErrorOfErrno(errno);
  return stream;
}

std::FILE* OpenTemporaryStream(Error* error) {
  std::FILE* stream = std::tmpfile();
  if (stream == nullptr) *error = ErrorOfErrno(errno);
  return stream;
}

bool RegularFileSize(std::FILE* stream, uint64_t* size) {
  struct stat status {};
  if (::fstat(::fileno(stream), &status) != 0 || !S_ISREG(status.st_mode)) return false;
  *size = static_cast<uint64_t>(status.st_size);
  return true;
}

void UseBinaryStandardStreams() {}

bool StandardErrorIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

unsigned long ProcessId() { return static_cast<unsigned long>(::getpid()); }

}  // namespace velfs::tool::host
