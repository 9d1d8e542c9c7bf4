// The three abstract interfaces every back-end implements.
//
// The core, the mount table and the stubs reach back-ends only through these classes. Every
// object is made by its back-end's factory (`Open`, `CreateFile`, `CreateEnum`) and destroyed
// through its virtual destructor. An operation a back-end lacks keeps the default here: the one
// shared not-supported answer, which ignores its arguments, writes no output argument, changes
// nothing and answers 0, false or null.
#ifndef VELFS_CORE_STORAGE_H
#define VELFS_CORE_STORAGE_H

#include <cstddef>
#include <cstdint>
#include <memory>

namespace velfs {

class StorageFile;
class StorageEnum;

// `ReleaseObject` and the one close function of files and listings destroy any of
// the three kinds without knowing which; in C++ that needs a common polymorphic root.
class StorageObject {
 public:
  StorageObject() = default;
  StorageObject(const StorageObject&) = delete;
  StorageObject& operator=(const StorageObject&) = delete;
  virtual ~StorageObject() = default;
};

class Storage : public StorageObject {
 public:
  // Paths are relative to the root, '/'-separated, already normalised by the caller.
  virtual std::unique_ptr<StorageFile> CreateFile(const char* path, uint32_t mode) = 0;
  virtual std::unique_ptr<StorageEnum> CreateEnum(const char* path) = 0;
  virtual bool IsFileExist(const char* path, bool* exists) = 0;
  virtual bool DeleteDirectory(const char* path);
  virtual bool IsDirectoryExist(const char* path, bool* exists) = 0;
  virtual bool DeleteFile(const char* path);
  virtual bool RenameFile(const char* oldPath, const char* newPath);
  virtual bool CopyFile(const char* sourcePath, const char* targetPath, bool failIfExists);
  virtual bool MoveFile(const char* sourcePath, const char* targetPath, bool failIfExists);
  virtual bool BeginTrans();
  virtual bool CommitTrans();
};

class StorageFile : public StorageObject {
 public:
  virtual uint64_t Read(void* buffer, uint64_t size) = 0;
  virtual uint64_t Write(const void* buffer, uint64_t size);
  virtual int32_t Tell() = 0;
  virtual int32_t Seek(int32_t offset, int32_t origin) = 0;
  virtual int32_t Error() = 0;
  virtual bool Resize(uint64_t size);
};

class StorageEnum : public StorageObject {
 public:
  virtual bool MoveNext() = 0;
  virtual void Reset() = 0;
  // On success `*name` receives a malloc'd NUL-terminated copy that the caller frees.
  virtual bool GetName(char** name) = 0;
  virtual bool GetFullName(char** name) = 0;
  virtual bool IsDirectory() = 0;
};

// A new NUL-terminated copy of `length` bytes from the C runtime heap, for the host to
// free(). Exhausted memory raises std::bad_alloc.
char* CopyForHost(const char* text, std::size_t length);

}  // namespace velfs

#endif  // VELFS_CORE_STORAGE_H
