/*
 * host_program.c: a host of velFS in plain C11. It loads the library as a host loads a file
 * system plug-in (LoadLibraryW on Windows, whose DllMain runs at process attach; dlopen
 * elsewhere, where the load-time entry ran before main) and finds its functions by name; the
 * library must have registered its callbacks with the host I/O layer velIOStub by then. Files
 * opened by virtual path through that layer (velIOOpen, the FileStub's functions, velIOClose)
 * must land on disk under a directory mount ("app:", the default for a bare path) and in the
 * database under a database mount ("db:"), as stdio and a connection of its own read them back.
 * Exits 0 when every check passed, 1 otherwise.
 */
#ifdef _WIN32
#include <direct.h>
#include <process.h>
#include <windows.h>
#define LoadVelfs() ((void*)LoadLibraryW(L"velfs.dll"))
#define FindFunction(library, name) ((void*)GetProcAddress((HMODULE)(library), name))
#define ProcessId() _getpid()
#define RemoveFolder(path) _rmdir(path)
#else
#define _XOPEN_SOURCE 700
#include <dlfcn.h>
#include <unistd.h>
#define LoadVelfs() dlopen("libvelfs.so.1", RTLD_NOW)
#define FindFunction(library, name) dlsym(library, name)
#define ProcessId() getpid()
#define RemoveFolder(path) rmdir(path)
#endif
#include <sqlite3.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "velIOStub.h"

static int failures;

#define CHECK(condition)                                                        \
  do {                                                                          \
    if (!(condition)) {                                                         \
      fprintf(stderr, "host_program.c:%d: FAILED: %s\n", __LINE__, #condition); \
      ++failures;                                                               \
    }                                                                           \
  } while (0)

/* Writes `text` through a stub opened by the host I/O layer; 1 when all of it was written. */
static int WriteThroughLayer(const char* virtualPath, uint32_t mode, const char* text) {
  FileStub* stub = velIOOpen(virtualPath, mode);
  if (stub == NULL) return 0;
  const int written = stub->write(stub->file, text, strlen(text)) == strlen(text);
  velIOClose(stub);
  return written;
}

/* Reads a whole file through a stub; the number of bytes, 0 when it does not open. */
static size_t ReadThroughLayer(const char* virtualPath, char* buffer, size_t capacity) {
  FileStub* stub = velIOOpen(virtualPath, 0);
  if (stub == NULL) return 0;
  const size_t size = (size_t)stub->read(stub->file, buffer, capacity);
  velIOClose(stub);
  return size;
}

static int SameText(const char* bytes, size_t size, const char* text) {
  return size == strlen(text) && memcmp(bytes, text, size) == 0;
}

/* The Content of a row of "FileStorage", read by a connection of our own. */
static int RowIs(const char* dbPath, const char* fileName, const char* path, const char* text) {
  sqlite3* db = NULL;
  sqlite3_stmt* statement = NULL;
  int same = 0;
  if (sqlite3_open_v2(dbPath, &db, SQLITE_OPEN_READONLY, NULL) == SQLITE_OK &&
      sqlite3_prepare_v2(db, "SELECT Content FROM FileStorage WHERE FileName=?1 AND Path=?2;", -1,
                         &statement, NULL) == SQLITE_OK) {
    sqlite3_bind_text(statement, 1, fileName, -1, SQLITE_STATIC);
    sqlite3_bind_text(statement, 2, path, -1, SQLITE_STATIC);
    if (sqlite3_step(statement) == SQLITE_ROW) {
      same = SameText(sqlite3_column_blob(statement, 0),
                      (size_t)sqlite3_column_bytes(statement, 0), text);
    }
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return same;
}

int main(void) {
  void* library = LoadVelfs();
  if (library == NULL) {
    fprintf(stderr, "host_program: FAILED: the library does not load\n");
    return 1;
  }
  CHECK(velIORegistrations() == 1);
  int32_t (*createDirectory)(const char*) =
      (int32_t(*)(const char*))FindFunction(library, "velFSCreateDirectory");
  void (*mountPath)(const char*, const char*) =
      (void (*)(const char*, const char*))FindFunction(library, "velFSMountPath");
  void (*unmountPath)(const char*) =
      (void (*)(const char*))FindFunction(library, "velFSUnmountPath");
  uint64_t (*velToSyspath)(const char*, char*, uint64_t) =
      (uint64_t(*)(const char*, char*, uint64_t))FindFunction(library, "velFSVelToSyspath");
  if (!createDirectory || !mountPath || !unmountPath || !velToSyspath) {
    fprintf(stderr, "host_program: FAILED: a function of the API is not exported\n");
    return 1;
  }

  const char* temp = getenv("TEMP") ? getenv("TEMP") : getenv("TMPDIR") ? getenv("TMPDIR") : "/tmp";
  char scratch[400], appDir[512], appDirBackslashed[512], dbPath[512], hostFile[600], buffer[700];
  snprintf(scratch, sizeof scratch, "%s/velfs-host-%d", temp, (int)ProcessId());
  snprintf(appDir, sizeof appDir, "%s/app", scratch);
  snprintf(dbPath, sizeof dbPath, "%s/store.db", scratch);
  snprintf(hostFile, sizeof hostFile, "%s/notes/a.txt", appDir);
  strcpy(appDirBackslashed, appDir);
  for (char* c = appDirBackslashed; *c != '\0'; ++c) *c = *c == '/' ? '\\' : *c;
  CHECK(createDirectory(scratch) == 1);
  CHECK(createDirectory(appDir) == 1);
  mountPath("app:", appDirBackslashed);
  mountPath("db:", dbPath); /* names nothing yet: a new database file */

  const uint64_t mapped = velToSyspath("app:notes/a.txt", buffer, sizeof buffer);
  CHECK(mapped == strlen(hostFile) && strstr(buffer, "/app/notes/a.txt") != NULL);

  /* A bare path goes to "app:"; mode 4 ("wb+") creates the missing directory notes/. */
  CHECK(WriteThroughLayer("notes\\a.txt", 4, "Hello, velFS"));
  FILE* file = fopen(hostFile, "rb");
  CHECK(file != NULL);
  if (file != NULL) {
    CHECK(SameText(buffer, fread(buffer, 1, sizeof buffer, file), "Hello, velFS"));
    fclose(file);
  }
  CHECK(SameText(buffer, ReadThroughLayer("app:notes/a.txt", buffer, sizeof buffer),
                 "Hello, velFS"));

  CHECK(WriteThroughLayer("db:docs/b.txt", 1, "in the database"));
  CHECK(RowIs(dbPath, "b.txt", "docs/", "in the database"));
  CHECK(SameText(buffer, ReadThroughLayer("db:docs/b.txt", buffer, sizeof buffer),
                 "in the database"));
  CHECK(velIOOpen("docs/b.txt", 0) == NULL); /* a bare path never reaches "db:" */

  unmountPath("app:");
  unmountPath("db:");
  CHECK(velIOOpen("notes/a.txt", 0) == NULL);
  CHECK(velIOOpen("db:docs/b.txt", 0) == NULL);
  CHECK(velToSyspath("app:notes/a.txt", NULL, 0) == 0);

  snprintf(buffer, sizeof buffer, "%s/notes", appDir);
  CHECK(remove(hostFile) == 0 && remove(dbPath) == 0);
  CHECK(RemoveFolder(buffer) == 0 && RemoveFolder(appDir) == 0 &&
        RemoveFolder(scratch) == 0);
  if (failures != 0) {
    fprintf(stderr, "host_program: %d check(s) failed\n", failures);
    return 1;
  }
  printf("host_program: all checks passed\n");
  return 0;
}
