// The platform seam: every call the library makes of the host file system goes through here.
//
// The interface has the shape of the Windows calls the spec names (wide UTF-16 paths, Windows
// file attributes), so the rest of the library is written once; host_file_system_posix.cc
// implements it over POSIX, and a Win32 implementation can sit beside it. Paths use '/'.
#ifndef VELFS_NATIVE_HOST_FILE_SYSTEM_H
#define VELFS_NATIVE_HOST_FILE_SYSTEM_H

#include <cstdint>
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

}  // namespace velfs::host

#endif  // VELFS_NATIVE_HOST_FILE_SYSTEM_H
