// The questions and actions the library asks of host paths, and slash normalisation.
// Stateless; every platform call goes through host_file_system.h.
#ifndef VELFS_NATIVE_HOST_PATH_H
#define VELFS_NATIVE_HOST_PATH_H

#include <string>

namespace velfs {

bool IsHostDirectory(const char* path);
// True for any existing entry that is not a directory.
bool IsHostFile(const char* path);
// True when this call created the directory (one level only).
bool CreateHostDirectory(const char* path);
// Turns every '\\' into '/' in place; nothing else changes.
void NormalizeSlashes(std::string& path);
// A normalised copy of a caller's path; the caller's string is never changed.
std::string NormalizedCopy(const char* path);

}  // namespace velfs

#endif  // VELFS_NATIVE_HOST_PATH_H
