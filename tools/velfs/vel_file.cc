// VelFile: the library's file functions, with their answers turned into ToolErrors. An archive
// read answers -1 (all bits set) on failure; a database or native read answers a short
// count, which the caller finds against the size.
#include "vel_file.h"

#include <sys/stat.h>

#include "tool_error.h"

namespace velfs::tool {

VelFile::VelFile(const Root& root, std::string_view inner, uint32_t mode)
    : shown_(root.Display(inner)), archive_(root.Kind() == RootKind::kArchive) {
  const std::string path(inner);
  handle_.reset(velfsCreateFileIndir(root.Handle(), path.c_str(), mode));
  if (!handle_) {
    throw ToolError(shown_, mode == kRead ? "cannot open the file" : "cannot create the file");
  }
}

std::optional<uint64_t> VelFile::Size() {
  // Native files answer 0 for a successful seek, the others the new position;
  // velfsTell answers the position in every back-end.
  if (velfsSeek(handle_.get(), 0, 2) == -1) return std::nullopt;
  const int32_t end = velfsTell(handle_.get());
  velfsSeek(handle_.get(), 0, 0);
  position_ = 0;
  if (end < 0) return std::nullopt;
  return static_cast<uint64_t>(end);
}

std::optional<uint64_t> VelFile::CopySize() {
  if (archive_) return std::nullopt;
  return Size();
}

std::optional<uint64_t> VelFile::SizeOf(const Root& root, std::string_view inner) {
  VelFile file(root, inner, kRead);
  std::optional<uint64_t> size = file.Size();
  struct stat info {};
  if (!size && root.Kind() == RootKind::kDirectory &&
      ::stat(root.HostPathOf(inner).c_str(), &info) == 0) {
    size = static_cast<uint64_t>(info.st_size);
  }
  return size;
}

bool VelFile::Resize(uint64_t size) { return velfsResize(handle_.get(), size); }

uint64_t VelFile::ReadSome(char* buffer, uint64_t size) {
  const uint64_t count = velfsRead(handle_.get(), buffer, size);
  if (count > size) {
    throw ToolError(
        shown_, "read failed at byte " + std::to_string(position_) + " (damaged archive member?)");
  }
  position_ += count;
  return count;
}

void VelFile::WriteAll(const char* buffer, uint64_t size) {
  if (velfsWrite(handle_.get(), buffer, size) != size) {
    throw ToolError(shown_, "write failed at byte " + std::to_string(position_));
  }
  position_ += size;
}

}  // namespace velfs::tool
