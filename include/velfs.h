/*
 * velfs.h — the exported C interface of velFS.
 *
 * One virtual file system over three kinds of storage root: a host directory, a ZIP archive
 * (read-only) and an SQLite database whose table "FileStorage" holds one row per file. Paths are
 * NUL-terminated UTF-8 strings; '\\' is read as '/'. Failures are reported only through results:
 * false, 0, null, or -1 for a position; no function throws, and a failed allocation is a failure
 * like any other, never the end of the process.
 *
 * Threads: every function may be called from any thread at any time, except that one handle
 * (DirHandle, FileHandle, EnumHandle, or a FileStub's file) is not used by two threads at once.
 * Distinct roots run in parallel. Handles of one root may be used on different threads; where the
 * root's back-end has one shared resource (a database's one SQLite connection, an archive's one
 * input position) their calls take turns on that root. The mount table has its own lock.
 *
 * Root paths (velfsOpenDir): a host directory, a ZIP file or a database file, optionally
 * followed by one ':'. Full paths (velfsCreateFile, velfsCreateEnum): an existing host file or
 * directory, or a container path, ':' and a path inside it ("store.db:docs/a.txt"). Virtual
 * paths (velFSVelToSyspath, velFSCreateStub): a mount name such as "app:" and a path inside it.
 */
#ifndef VELFS_H
#define VELFS_H

#include <stdint.h>
#ifndef __cplusplus
#include <stdbool.h>
#endif

#if defined(_WIN32)
#define VELFS_API __declspec(dllexport)
#else
#define VELFS_API __attribute__((visibility("default")))
#endif

#ifdef __cplusplus
extern "C" {
#endif

typedef struct DirHandle DirHandle;
typedef struct FileHandle FileHandle;
typedef struct EnumHandle EnumHandle;

/* A file opened for the host I/O layer: seven pointer-sized fields, 56 bytes. The
 * layer calls each function with the record's `file` as first argument. */
typedef struct FileStub {
  uint64_t (*read)(void* file, void* buffer, uint64_t size);
  uint64_t (*write)(void* file, const void* buffer, uint64_t size);
  int32_t (*tell)(void* file);
  int32_t (*seek)(void* file, int32_t offset, int32_t origin);
  int32_t (*error)(void* file);
  int32_t (*resize)(void* file, uint64_t size); /* always 0 */
  void* file;                                   /* the open file, owned by the record */
} FileStub;

/* Open modes: 0 "rb", 1 "wb", 2 "ab", 3 "rb+", 4 "wb+", 5 "ab+" (only directory roots tell them
 * apart). Seek origins: 0 start, 1 current position, 2 end. */

/* Directory handles: one open storage root each. */
VELFS_API DirHandle* velfsOpenDir(const char* rootPath);
/* Opens a root only if it already is one, and only for reading: an existing host directory, an
 * existing file that opens as a ZIP archive, or an existing SQLite database that has the table
 * "FileStorage" (opened read-only). Null for anything else (a missing path, an empty file, a
 * database without that table), and nothing is created or written: neither the file's bytes nor
 * its modification time change. Through the handle, files open in mode 0 only and read; every
 * change answers the failure value: other modes, velfsWrite, velfsResize, deleting, renaming,
 * copying, moving and transactions. Listings and existence tests answer as for velfsOpenDir.
 * As there, a file of a database root opens under any name and reads nothing when it has no row.
 * Close it with velfsCloseDir. */
VELFS_API DirHandle* velfsOpenDirReadOnly(const char* rootPath);
VELFS_API void velfsCloseDir(DirHandle* handle);
VELFS_API bool velfsIsFileExist(DirHandle* handle, const char* path, bool* exists);
VELFS_API bool velfsIsDirectoryExist(DirHandle* handle, const char* path, bool* exists);
VELFS_API bool velfsDeleteFile(DirHandle* handle, const char* path);
VELFS_API bool velfsDeleteDirectory(DirHandle* handle, const char* path);
VELFS_API bool velfsRenameFile(DirHandle* handle, const char* oldPath, const char* newPath);
VELFS_API bool velfsCopyFile(DirHandle* handle, const char* sourcePath, const char* targetPath,
                             bool failIfExists);
VELFS_API bool velfsMoveFile(DirHandle* handle, const char* sourcePath, const char* targetPath,
                             bool failIfExists);
VELFS_API bool velfsBeginTrans(DirHandle* handle);
VELFS_API bool velfsCommitTrans(DirHandle* handle);

/* Files, from a full path or from a path inside an open root. */
VELFS_API FileHandle* velfsCreateFile(const char* path, uint32_t mode);
VELFS_API FileHandle* velfsCreateFileIndir(DirHandle* handle, const char* path, uint32_t mode);
/* velfsRead and velfsWrite answer the number of bytes moved; a null buffer answers 0 whatever the
 * size and leaves the file as it was. velfsIsFileExist and velfsIsDirectoryExist answer false for
 * a null `exists`, velfsGetName and velfsGetFullName for a null `name`. */
VELFS_API uint64_t velfsRead(FileHandle* handle, void* buffer, uint64_t size);
VELFS_API uint64_t velfsWrite(FileHandle* handle, const void* buffer, uint64_t size);
VELFS_API int32_t velfsTell(FileHandle* handle);
VELFS_API int32_t velfsSeek(FileHandle* handle, int32_t offset, int32_t origin);
VELFS_API bool velfsError(FileHandle* handle);
VELFS_API bool velfsResize(FileHandle* handle, uint64_t size);
/* velfsCloseFile and velfsCloseEnum are one function under two names: either closes either. */
VELFS_API void velfsCloseFile(FileHandle* handle);

/* Directory listings. Names are handed out as malloc'd copies: free() them. */
VELFS_API EnumHandle* velfsCreateEnum(const char* path);
VELFS_API EnumHandle* velfsCreateEnumIndir(DirHandle* handle, const char* path);
VELFS_API bool velfsMoveNext(EnumHandle* handle);
VELFS_API void velfsReset(EnumHandle* handle);
VELFS_API bool velfsGetName(EnumHandle* handle, char** name);
VELFS_API bool velfsGetFullName(EnumHandle* handle, char** name);
VELFS_API bool velfsIsDirectory(EnumHandle* handle);
VELFS_API void velfsCloseEnum(EnumHandle* handle);

/* The mount table: mount names such as "app:" mapped to system paths, each with a
 * storage kept open. A virtual path is a mount name, its ':' and a path inside the mount. */
VELFS_API void velFSMountPath(const char* name, const char* sysPath);
VELFS_API void velFSUnmountPath(const char* name);
/* The system path of a virtual path, copied as strncpy does (exactly `size` bytes, terminated
 * only when shorter); answers its length, 0 when the path does not map. Size 0: length only. */
VELFS_API uint64_t velFSVelToSyspath(const char* path, char* buffer, uint64_t size);
/* One host directory level: 1 when created, else 0. */
VELFS_API int32_t velFSCreateDirectory(const char* path);

/* The host I/O layer. The library registers velFSCreateStub and velFSDeleteStub with
 * velRegisterFS when it is loaded; a path without ':' refers to the mount "app:". */
VELFS_API int32_t velFSInitFileSystem(void);
VELFS_API FileStub* velFSCreateStub(const char* path, uint32_t mode);
VELFS_API void velFSDeleteStub(FileStub* stub);
/* The library entry point: reason 1 (process attach) registers the callbacks; always 1. */
VELFS_API int32_t DllMain(void* module, uint32_t reason, void* reserved);

#ifdef __cplusplus
}
#endif

#endif /* VELFS_H */
