// The three abstract interfaces every back-end implements: `Storage` (one opened root),
// `StorageFile` (one open file of it) and `StorageEnum` (one listing of one of its directories).
//
// The exported functions, the mount table and the stubs reach back-ends only through these
// classes; the storage selection alone names the back-ends' opening functions. Objects are owned
// through std::unique_ptr and destroyed through their virtual destructors. An operation a
// back-end lacks keeps the default here: the one shared not-supported answer, which ignores its
// arguments, writes no output argument, changes nothing and answers 0 or false.
//
// Paths handed to these operations are relative to the root, '/'-separated and already
// normalised by the caller (paths.h). Operations may throw std::bad_alloc; the exported
// functions turn it into their failure value.
//
// Threads: a storage and the files and listings it made may be used from different threads at
// once; a back-end whose objects share state (one SQLite connection, one archive input) makes
// them take turns on a lock of that root. One object itself is used by one thread at a time.
#ifndef VELFS_CORE_STORAGE_H
#define VELFS_CORE_STORAGE_H

#include <cstddef>
#include <cstdint>
#include <memory>

namespace velfs {

class StorageFile;
class StorageEnum;

// An object with one owner: never copied, destroyed through its virtual destructor. The root of
// the three interfaces.
class UniqueObject {
 public:
  UniqueObject() = default;
  UniqueObject(const UniqueObject&) = delete;
  UniqueObject& operator=(const UniqueObject&) = delete;
  virtual ~UniqueObject() = default;
};

class Storage : public UniqueObject {
 public:
  // Null when the file cannot be opened in `mode` (0 "rb" … 5 "ab+").
  virtual std::unique_ptr<StorageFile> CreateFile(const char* path, uint32_t mode) = 0;
  // Null when the directory cannot be listed.
  virtual std::unique_ptr<StorageEnum> CreateEnum(const char* path) = 0;
  // True when the test could be made; then `*exists` holds its answer.
  virtual bool IsFileExist(const char* path, bool* exists) = 0;
  virtual bool IsDirectoryExist(const char* path, bool* exists) = 0;
  virtual bool DeleteDirectory(const char* path);
  virtual bool DeleteFile(const char* path);
  virtual bool RenameFile(const char* oldPath, const char* newPath);
  virtual bool CopyFile(const char* sourcePath, const char* targetPath, bool failIfExists);
  virtual bool MoveFile(const char* sourcePath, const char* targetPath, bool failIfExists);
  virtual bool BeginTrans();
  virtual bool CommitTrans();
};

class StorageFile : public UniqueObject {
 public:
  virtual uint64_t Read(void* buffer, uint64_t size) = 0;
  virtual uint64_t Write(const void* buffer, uint64_t size);
  virtual int32_t Tell() = 0;
  virtual int32_t Seek(int32_t offset, int32_t origin) = 0;
  virtual int32_t Error() = 0;
  virtual bool Resize(uint64_t size);
};

class StorageEnum : public UniqueObject {
 public:
  virtual bool MoveNext() = 0;
  virtual void Reset() = 0;
  // On success `*name` receives a malloc'd NUL-terminated copy that the caller frees.
  virtual bool GetName(char** name) = 0;
  virtual bool GetFullName(char** name) = 0;
  virtual bool IsDirectory() = 0;
};

// The deleter of a std::unique_ptr that owns a C library's handle: `Release` (zzip_dir_close,
// sqlite3_finalize, …) frees it; its answer is ignored, as nothing can be done about a failure.
template <auto Release>
struct ReleaseWith {
  template <class Handle>
  void operator()(Handle* handle) const {
    Release(handle);
  }
};

// A new NUL-terminated copy of `length` bytes from the C runtime heap, for the host to free().
// Throws std::bad_alloc when the heap is exhausted.
char* CopyForHost(const char* text, std::size_t length);

}  // namespace velfs

#endif  // VELFS_CORE_STORAGE_H
