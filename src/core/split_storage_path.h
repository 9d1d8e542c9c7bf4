// How a full path is cut into a storage root and a path inside it.
#ifndef VELFS_CORE_SPLIT_STORAGE_PATH_H
#define VELFS_CORE_SPLIT_STORAGE_PATH_H

#include <string>

namespace velfs {

// An existing host entry is cut after its last '/', anything else after its last ':'. False (and
// both outputs untouched) when the normalised path is empty or lacks the separator.
bool SplitStoragePath(const char* path, std::string& root, std::string& innerPath);

}  // namespace velfs

#endif  // VELFS_CORE_SPLIT_STORAGE_PATH_H
