// HostFile: fopen/fread/fwrite/fclose with errno turned into the cause of a ToolError.
#include "host_file.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "tool_error.h"

namespace velfs::tool {

namespace {

std::string Cause(int error) { return std::strerror(error); }

}  // namespace

HostFile::HostFile(std::FILE* stream, std::string shown, bool owned)
    : stream_(stream), shown_(std::move(shown)), owned_(owned) {}

HostFile::HostFile(HostFile&& other) noexcept
    : stream_(other.stream_), shown_(std::move(other.shown_)), owned_(other.owned_) {
  other.stream_ = nullptr;
}

HostFile::~HostFile() {
  if (stream_ != nullptr && owned_) std::fclose(stream_);
}

HostFile HostFile::OpenRead(const std::string& path) {
  struct stat info {};
  if (::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
    throw ToolError(path, "is a directory");
  }
  std::FILE* stream = std::fopen(path.c_str(), "rb");
  if (stream == nullptr) throw ToolError(path, Cause(errno));
  return HostFile(stream, path, true);
}

HostFile HostFile::OpenWrite(const std::string& path, bool exclusive) {
  std::FILE* stream = std::fopen(path.c_str(), exclusive ? "wbx" : "wb");
  if (stream == nullptr) {
    const int error = errno;
    throw ToolError(path, error == EEXIST ? std::string("file exists") : Cause(error));
  }
  return HostFile(stream, path, true);
}

HostFile HostFile::StandardInput() { return HostFile(stdin, "standard input", false); }

HostFile HostFile::StandardOutput() { return HostFile(stdout, "standard output", false); }

HostFile HostFile::Temporary() {
  std::FILE* stream = std::tmpfile();
  if (stream == nullptr) throw ToolError("temporary file", Cause(errno));
  return HostFile(stream, "temporary file", true);
}

std::optional<uint64_t> HostFile::Size() const {
  struct stat info {};
  if (::fstat(fileno(stream_), &info) != 0 || !S_ISREG(info.st_mode)) return std::nullopt;
  return static_cast<uint64_t>(info.st_size);
}

void HostFile::Rewind() {
  if (std::fflush(stream_) != 0 || std::fseek(stream_, 0, SEEK_SET) != 0) {
    throw ToolError(shown_, Cause(errno));
  }
}

void HostFile::Close() {
  if (stream_ == nullptr) return;
  const int result = owned_ ? std::fclose(stream_) : std::fflush(stream_);
  const int error = errno;
  stream_ = nullptr;
  if (result != 0) throw ToolError(shown_, "write failed: " + Cause(error));
}

uint64_t HostFile::ReadSome(char* buffer, uint64_t size) {
  const std::size_t count = std::fread(buffer, 1, size, stream_);
  if (count < size && std::ferror(stream_)) throw ToolError(shown_, "read failed: " + Cause(errno));
  return count;
}

void HostFile::WriteAll(const char* buffer, uint64_t size) {
  if (std::fwrite(buffer, 1, size, stream_) != size) {
    throw ToolError(shown_, "write failed: " + Cause(errno));
  }
}

}  // namespace velfs::tool
