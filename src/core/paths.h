// Paths as the library keeps them: the one normalisation of a caller's path, and the cut of a
// full path into a storage root and a path inside it.
//
// A caller's path is copied once, at the exported function, and every '\\' in the copy becomes
// '/'; nothing else changes (case, doubled, leading and trailing '/' all stay). Everything below
// the exported functions works on that copy. Stateless; safe from any thread.
#ifndef VELFS_CORE_PATHS_H
#define VELFS_CORE_PATHS_H

#include <string>

namespace velfs {

// A copy of `path` with every '\\' turned into '/'. The caller's string is never changed.
std::string NormalizedCopy(const char* path);

// Cuts a caller's full path, normalised here (the one normalisation of the call): an existing
// host entry (file or directory) after its last '/', anything else after its last ':', so
// "store.db:docs/a.txt" gives ("store.db:", "docs/a.txt") and "dir/a.txt" naming a host file
// gives ("dir/", "a.txt"). The root keeps its separator. False (both outputs untouched) when the
// path is empty or lacks the separator. Asks the host once about the path.
bool SplitStoragePath(const char* path, std::string& root, std::string& innerPath);

}  // namespace velfs

#endif  // VELFS_CORE_PATHS_H
