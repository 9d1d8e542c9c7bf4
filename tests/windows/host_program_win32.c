/*
 * host_program_win32.c: a Windows host of velFS in plain C11. It links only the host I/O layer
 * velIOStub.dll and loads velfs.dll at run time with LoadLibraryW, as a host application loads
 * a file system plug-in; the loader's call of velfs.dll's DllMain (process attach) must register
 * the library's callbacks with velIOStub before LoadLibraryW returns.
 *
 * Then, through functions found with GetProcAddress and the I/O layer only, it mounts "app:" on
 * a fresh directory under the user's temporary folder, writes a file through a FileStub (a bare
 * path stands for "app:"), reads it back through a second stub, checks the bytes on disk with
 * _wfopen, checks that velfsCloseEnum and velfsCloseFile are one entry point, unmounts and
 * removes what it made.
 *
 * Exits 0 when every check passed, 1 with a message per failed check otherwise.
 */
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <wchar.h>

#include "velIOStub.h"

static int failures;

static void Check(int line, int condition, const char* what) {
  if (!condition) {
    fprintf(stderr, "host_program_win32.c:%d: FAILED: %s\n", line, what);
    ++failures;
  }
}
#define CHECK(condition) Check(__LINE__, (condition) != 0, #condition)

typedef void (*MountPathFn)(const char* name, const char* sysPath);
typedef void (*UnmountPathFn)(const char* name);
typedef uint64_t (*VelToSyspathFn)(const char* path, char* buffer, uint64_t size);

/* A UTF-8 text as UTF-16, in `out` of `capacity` units; 0 when it does not fit. */
static int ToWide(const char* text, wchar_t* out, int capacity) {
  return MultiByteToWideChar(CP_UTF8, 0, text, -1, out, capacity);
}

int main(void) {
  char temp[MAX_PATH];
  const DWORD tempLength = GetTempPathA(MAX_PATH, temp);
  if (tempLength == 0 || tempLength >= MAX_PATH - 40) {
    fprintf(stderr, "host_program_win32: FAILED: no temporary folder\n");
    return 1;
  }
  char root[MAX_PATH];
  snprintf(root, sizeof root, "%svelfs-host-%lu", temp, (unsigned long)GetCurrentProcessId());
  for (char* c = root; *c != '\0'; ++c) {
    if (*c == '\\') *c = '/';
  }
  CHECK(CreateDirectoryA(root, NULL));

  CHECK(velIORegistrations() == 0);
  CHECK(GetModuleHandleW(L"velfs.dll") == NULL);
  HMODULE library = LoadLibraryW(L"velfs.dll");
  if (library == NULL) {
    fprintf(stderr, "host_program_win32: FAILED: LoadLibraryW(velfs.dll): error %lu\n",
            (unsigned long)GetLastError());
    return 1;
  }
  CHECK(velIORegistrations() == 1);

  MountPathFn mountPath = (MountPathFn)(void*)GetProcAddress(library, "velFSMountPath");
  UnmountPathFn unmountPath = (UnmountPathFn)(void*)GetProcAddress(library, "velFSUnmountPath");
  VelToSyspathFn velToSyspath =
      (VelToSyspathFn)(void*)GetProcAddress(library, "velFSVelToSyspath");
  CHECK(mountPath != NULL && unmountPath != NULL && velToSyspath != NULL);
  CHECK(GetProcAddress(library, "velfsCloseEnum") != NULL);
  CHECK(GetProcAddress(library, "velfsCloseEnum") == GetProcAddress(library, "velfsCloseFile"));
  CHECK(GetProcAddress(library, "sqlite3_open") == NULL);
  CHECK(GetProcAddress(library, "zzip_dir_open") == NULL);
  if (mountPath == NULL || unmountPath == NULL || velToSyspath == NULL) return 1;

  char mountRoot[MAX_PATH + 1];
  snprintf(mountRoot, sizeof mountRoot, "%s/", root);
  mountPath("app:", mountRoot);

  char mapped[MAX_PATH * 2];
  const uint64_t mappedLength = velToSyspath("app:notes/today.txt", mapped, sizeof mapped);
  CHECK(mappedLength > 0 && mappedLength < sizeof mapped);
  if (mappedLength > 0 && mappedLength < sizeof mapped) {
    CHECK(strstr(mapped, "notes/today.txt") != NULL);
  }

  /* The stub creates the missing directory "notes" below the mount's root. */
  const char text[] = "written by the host";
  FileStub* writer = velIOOpen("notes/today.txt", 1);
  CHECK(writer != NULL);
  if (writer != NULL) {
    CHECK(writer->write(writer->file, text, sizeof text - 1) == sizeof text - 1);
    CHECK(writer->tell(writer->file) == (int32_t)(sizeof text - 1));
    CHECK(writer->error(writer->file) == 0);
    velIOClose(writer);
  }

  FileStub* reader = velIOOpen("app:notes/today.txt", 0);
  CHECK(reader != NULL);
  if (reader != NULL) {
    char back[64] = {0};
    CHECK(reader->read(reader->file, back, sizeof back) == sizeof text - 1);
    CHECK(memcmp(back, text, sizeof text - 1) == 0);
    CHECK(reader->seek(reader->file, 8, 0) == 0);
    CHECK(reader->read(reader->file, back, 2) == 2 && memcmp(back, "by", 2) == 0);
    velIOClose(reader);
  }
  CHECK(velIOOpen("app:notes/missing.txt", 0) == NULL);

  char onDisk[MAX_PATH * 2];
  snprintf(onDisk, sizeof onDisk, "%s/notes/today.txt", root);
  wchar_t wideOnDisk[MAX_PATH * 2];
  CHECK(ToWide(onDisk, wideOnDisk, MAX_PATH * 2) > 0);
  FILE* file = _wfopen(wideOnDisk, L"rb");
  CHECK(file != NULL);
  if (file != NULL) {
    char disk[64] = {0};
    CHECK(fread(disk, 1, sizeof disk, file) == sizeof text - 1);
    CHECK(memcmp(disk, text, sizeof text - 1) == 0);
    fclose(file);
  }

  unmountPath("app:");
  CHECK(velToSyspath("app:notes/today.txt", NULL, 0) == 0);
  CHECK(velIOOpen("app:notes/today.txt", 0) == NULL);

  CHECK(DeleteFileW(wideOnDisk));
  char notes[MAX_PATH + 8];
  snprintf(notes, sizeof notes, "%s/notes", root);
  CHECK(RemoveDirectoryA(notes));
  CHECK(RemoveDirectoryA(root));
  CHECK(FreeLibrary(library));

  if (failures != 0) {
    fprintf(stderr, "host_program_win32: %d check(s) failed\n", failures);
    return 1;
  }
  printf("host_program_win32: all checks passed\n");
  return 0;
}
