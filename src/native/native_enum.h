// `NativeEnum`, the listing of one host directory, read entry by entry through the
// host's find-first / find-next search as the caller steps. "." and ".." are never reported;
// the order is the host's. Queries answer false before the first MoveNext and after the end.
// It keeps its own copies of the paths and may outlive the storage that made it.
#ifndef VELFS_NATIVE_NATIVE_ENUM_H
#define VELFS_NATIVE_NATIVE_ENUM_H

#include <string>

#include "core/storage.h"
#include "native/host_file_system.h"

namespace velfs {

class NativeEnum final : public StorageEnum {
 public:
  // False when `directoryPath` is not an existing directory. Does not start the search.
  bool Open(const std::string& directoryPath, const std::string& relativePath);

  bool MoveNext() override;
  void Reset() override;
  bool GetName(char** name) override;
  bool GetFullName(char** name) override;
  bool IsDirectory() override;

 private:
  bool OnEntry() const { return search_ != nullptr && !ended_; }

  std::string dirPath_;  // the storage root in UTF-8 followed by relPath
  std::string relPath_;  // empty or ending in '/'; prefixes every full name
  bool ended_ = false;
  host::FindData current_;
  host::SearchHandle search_;  // null before the first MoveNext and after the end
};

}  // namespace velfs

#endif  // VELFS_NATIVE_NATIVE_ENUM_H
