// `ArchiveStorage`, a read-only view of a ZIP archive's members as files and
// directories, read through zziplib from the mapped input of archive_io.h.
//
// Any existing file that zziplib opens as a ZIP archive is accepted, whatever its name. Four
// operations are supported: opening members for reading, listing a directory level, and the two
// existence tests over a name index (lower-cased ASCII, built once at first use); the other
// seven keep the shared not-supported answer. Member files keep the archive alive inside
// zziplib after the storage is destroyed.
#ifndef VELFS_ARCHIVE_ARCHIVE_STORAGE_H
#define VELFS_ARCHIVE_ARCHIVE_STORAGE_H

#include <memory>
#include <string>
#include <unordered_map>

#include "archive/zzip_handles.h"
#include "core/storage.h"

namespace velfs {

class ArchiveStorage final : public Storage {
 public:
  static std::unique_ptr<Storage> Open(const char* path);

  std::unique_ptr<StorageFile> CreateFile(const char* path, uint32_t mode) override;
  std::unique_ptr<StorageEnum> CreateEnum(const char* path) override;
  bool IsFileExist(const char* path, bool* exists) override;
  bool IsDirectoryExist(const char* path, bool* exists) override;

 private:
  explicit ArchiveStorage(ArchiveDir dir) : dir_(std::move(dir)) {}
  void BuildIndex();

  ArchiveDir dir_;
  // The name index: lower-cased member names, those ending in '/' in `directoryNames`, the rest
  // in `fileNames`. Each key maps to the name of the first member (in central-directory order)
  // that has it, which is the member CreateFile opens.
  std::unordered_map<std::string, std::string> fileNames_;
  std::unordered_map<std::string, std::string> directoryNames_;
  bool indexBuilt_ = false;
};

}  // namespace velfs

#endif  // VELFS_ARCHIVE_ARCHIVE_STORAGE_H
