/*
 * host_program.c — a host of velFS as Part 2.2 describes it, in plain C11 against the shared
 * libraries libvelfs and libvelIOStub (issue 4).
 *
 * It relies on the registration at load time (velIORegistrations() >= 1 before any velFS call),
 * mounts "app:" on a directory and "db:" on a database file in a fresh scratch directory under
 * /tmp, and works on files only through the host I/O layer: velIOOpen, the FileStub's function
 * pointers (each called with the record's `file` first) and velIOClose. It checks every answer
 * and the bytes on disk (stdio) and in the database (SQLite directly), checks
 * velFSVelToSyspath, unmounts both names and removes the scratch directory.
 *
 * Exits 0 when every check passed, 1 with a message per failed check otherwise.
 */
#define _XOPEN_SOURCE 700
#include <ftw.h>
#include <sqlite3.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include "velIOStub.h"
#include "velfs.h"

static int failures;

static void Fail(int line, const char* what) {
  fprintf(stderr, "host_program.c:%d: FAILED: %s\n", line, what);
  ++failures;
}

static void CheckTrue(int line, int condition, const char* what) {
  if (!condition) Fail(line, what);
}

static void CheckU64(int line, const char* what, uint64_t got, uint64_t want) {
  if (got != want) {
    fprintf(stderr, "host_program.c:%d: FAILED: %s: got %llu, want %llu\n", line, what,
            (unsigned long long)got, (unsigned long long)want);
    ++failures;
  }
}

static void CheckI32(int line, const char* what, int32_t got, int32_t want) {
  if (got != want) {
    fprintf(stderr, "host_program.c:%d: FAILED: %s: got %d, want %d\n", line, what, (int)got,
            (int)want);
    ++failures;
  }
}

/* `got` holds `gotSize` bytes; they must be exactly the bytes of `want` (a C string). */
static void CheckBytes(int line, const char* what, const char* got, size_t gotSize,
                       const char* want) {
  const size_t wantSize = strlen(want);
  if (gotSize != wantSize || memcmp(got, want, wantSize) != 0) {
    fprintf(stderr, "host_program.c:%d: FAILED: %s: got \"%.*s\" (%zu bytes), want \"%s\"\n", line,
            what, (int)gotSize, got, gotSize, want);
    ++failures;
  }
}

#define CHECK(condition) CheckTrue(__LINE__, (condition) != 0, #condition)
#define CHECK_U64(what, got, want) CheckU64(__LINE__, what, got, want)
#define CHECK_I32(what, got, want) CheckI32(__LINE__, what, got, want)
#define CHECK_BYTES(what, got, size, want) CheckBytes(__LINE__, what, got, size, want)

/* Joins two path parts with one '/'; a path too long for `out` ends the program. */
static void Join(char* out, size_t size, const char* directory, const char* name) {
  const int length = snprintf(out, size, "%s/%s", directory, name);
  if (length < 0 || (size_t)length >= size) {
    fprintf(stderr, "host_program: FAILED: path too long: %s/%s\n", directory, name);
    exit(1);
  }
}

/* The whole content of a host file, read with stdio; the number of bytes (0 if unreadable). */
static size_t ReadHostFile(const char* path, char* buffer, size_t capacity) {
  FILE* file = fopen(path, "rb");
  if (file == NULL) return 0;
  const size_t size = fread(buffer, 1, capacity, file);
  fclose(file);
  return size;
}

/* The Content of the row (FileName, Path) of FileStorage, read by a connection of our own;
 * the number of bytes, or -1 when the row is missing. */
static int ReadDatabaseRow(const char* dbPath, const char* fileName, const char* path,
                           char* buffer, size_t capacity) {
  sqlite3* db = NULL;
  sqlite3_stmt* statement = NULL;
  int size = -1;
  if (sqlite3_open_v2(dbPath, &db, SQLITE_OPEN_READONLY, NULL) == SQLITE_OK &&
      sqlite3_prepare_v2(db, "SELECT Content FROM FileStorage WHERE FileName=?1 AND Path=?2;", -1,
                         &statement, NULL) == SQLITE_OK) {
    sqlite3_bind_text(statement, 1, fileName, -1, SQLITE_STATIC);
    sqlite3_bind_text(statement, 2, path, -1, SQLITE_STATIC);
    if (sqlite3_step(statement) == SQLITE_ROW) {
      const int bytes = sqlite3_column_bytes(statement, 0);
      const void* blob = sqlite3_column_blob(statement, 0);
      size = bytes < (int)capacity ? bytes : (int)capacity;
      if (size > 0) memcpy(buffer, blob, (size_t)size);
    }
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return size;
}

/* The number of rows of FileStorage, or -1. */
static int CountDatabaseRows(const char* dbPath) {
  sqlite3* db = NULL;
  sqlite3_stmt* statement = NULL;
  int count = -1;
  if (sqlite3_open_v2(dbPath, &db, SQLITE_OPEN_READONLY, NULL) == SQLITE_OK &&
      sqlite3_prepare_v2(db, "SELECT count(*) FROM FileStorage;", -1, &statement, NULL) ==
          SQLITE_OK &&
      sqlite3_step(statement) == SQLITE_ROW) {
    count = sqlite3_column_int(statement, 0);
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return count;
}

/* Reads through the stub until it answers 0; the number of bytes. */
static size_t ReadAll(FileStub* stub, char* buffer, size_t capacity) {
  size_t total = 0;
  uint64_t count;
  while (total < capacity &&
         (count = stub->read(stub->file, buffer + total, capacity - total)) > 0) {
    total += (size_t)count;
  }
  return total;
}

static uint64_t WriteText(FileStub* stub, const char* text) {
  return stub->write(stub->file, text, strlen(text));
}

static int RemoveEntry(const char* path, const struct stat* status, int type, struct FTW* walk) {
  (void)status;
  (void)type;
  (void)walk;
  return remove(path);
}

/* Files through "app:", a native mount whose system path was given with backslashes. */
static void RunAppMount(const char* appDir) {
  char hostPath[4096];
  char buffer[256];
  size_t size;
  Join(hostPath, sizeof hostPath, appDir, "notes/a.txt");

  /* A bare path goes to "app:"; mode 4 ("wb+") creates the missing directory notes/. */
  FileStub* stub = velIOOpen("notes/a.txt", 4);
  CHECK(stub != NULL);
  if (stub == NULL) return;
  CHECK(stub->file != NULL);
  CHECK_U64("write Hello, world", WriteText(stub, "Hello, world"), 12);
  CHECK_I32("tell after write", stub->tell(stub->file), 12);
  CHECK_I32("seek to 7 (native: 0 on success)", stub->seek(stub->file, 7, 0), 0);
  CHECK_I32("tell after seek", stub->tell(stub->file), 7);
  CHECK_U64("overwrite with velFS", WriteText(stub, "velFS"), 5);
  CHECK_I32("seek to start", stub->seek(stub->file, 0, 0), 0);
  CHECK_I32("error before the end", stub->error(stub->file), 0);
  size = (size_t)stub->read(stub->file, buffer, sizeof buffer);
  CHECK_BYTES("read back", buffer, size, "Hello, velFS");
  CheckTrue(__LINE__, stub->error(stub->file) != 0, "error after a read into the end");
  CHECK_I32("seek before the start", stub->seek(stub->file, -1, 0), -1);
  CHECK_I32("resize is always 0", stub->resize(stub->file, 3), 0);
  velIOClose(stub);

  size = ReadHostFile(hostPath, buffer, sizeof buffer);
  CHECK_BYTES("bytes on disk after close", buffer, size, "Hello, velFS");

  /* The named path, mode 0 ("rb"): positions from the end. */
  stub = velIOOpen("app:notes/a.txt", 0);
  CHECK(stub != NULL);
  if (stub != NULL) {
    CHECK_I32("seek to the end", stub->seek(stub->file, 0, 2), 0);
    CHECK_I32("tell at the end", stub->tell(stub->file), 12);
    CHECK_I32("seek 5 back from the end", stub->seek(stub->file, -5, 2), 0);
    size = (size_t)stub->read(stub->file, buffer, 5);
    CHECK_BYTES("read the last 5 bytes", buffer, size, "velFS");
    CHECK_U64("write to a read-only file", WriteText(stub, "x"), 0);
    velIOClose(stub);
  }

  /* Mode 2 ("ab") appends; backslashes in the virtual path are read as '/'. */
  stub = velIOOpen("app:notes\\a.txt", 2);
  CHECK(stub != NULL);
  if (stub != NULL) {
    CHECK_U64("append", WriteText(stub, "!"), 1);
    velIOClose(stub);
  }
  size = ReadHostFile(hostPath, buffer, sizeof buffer);
  CHECK_BYTES("bytes on disk after append", buffer, size, "Hello, velFS!");

  /* Mode 0 of a missing file: null, nothing created. */
  CHECK(velIOOpen("notes/missing.txt", 0) == NULL);
  Join(hostPath, sizeof hostPath, appDir, "notes/missing.txt");
  FILE* missing = fopen(hostPath, "rb");
  CHECK(missing == NULL);
  if (missing != NULL) fclose(missing);
}

/* Files through "db:", a database mount. */
static void RunDbMount(const char* dbPath) {
  char buffer[256];
  size_t size;
  int rowSize;

  FileStub* stub = velIOOpen("db:docs/b.txt", 1);
  CHECK(stub != NULL);
  if (stub == NULL) return;
  CHECK_I32("error without a row", stub->error(stub->file), 1);
  CHECK_I32("tell without a row", stub->tell(stub->file), 0);
  CHECK_I32("seek without a row", stub->seek(stub->file, 0, 0), -1);
  CHECK_U64("write 0123456789", WriteText(stub, "0123456789"), 10);
  CHECK_I32("tell after write", stub->tell(stub->file), 10);

  /* Visible to another connection while the stub is open. */
  rowSize = ReadDatabaseRow(dbPath, "b.txt", "docs/", buffer, sizeof buffer);
  CHECK_BYTES("row while open", buffer, rowSize < 0 ? 0 : (size_t)rowSize, "0123456789");

  CHECK_I32("seek to 4 (database: the new position)", stub->seek(stub->file, 4, 0), 4);
  CHECK_U64("overwrite with ab", WriteText(stub, "ab"), 2);
  CHECK_I32("tell after overwrite", stub->tell(stub->file), 6);
  CHECK_I32("seek 3 back from the end", stub->seek(stub->file, -3, 2), 7);
  CHECK_I32("error before the end", stub->error(stub->file), 0);
  size = (size_t)stub->read(stub->file, buffer, sizeof buffer);
  CHECK_BYTES("read the tail", buffer, size, "789");
  CHECK_I32("error at the end (passed on unchanged)", stub->error(stub->file), 1);
  CHECK_I32("seek past the end is refused", stub->seek(stub->file, 11, 0), 10);
  CHECK_I32("seek to start", stub->seek(stub->file, 0, 0), 0);
  size = ReadAll(stub, buffer, sizeof buffer);
  CHECK_BYTES("read everything", buffer, size, "0123ab6789");
  CHECK_I32("resize is always 0", stub->resize(stub->file, 2), 0);
  velIOClose(stub);

  rowSize = ReadDatabaseRow(dbPath, "b.txt", "docs/", buffer, sizeof buffer);
  CHECK_BYTES("row after close", buffer, rowSize < 0 ? 0 : (size_t)rowSize, "0123ab6789");
  CHECK_I32("rows in FileStorage", CountDatabaseRows(dbPath), 1);

  /* A second file at the root of the database, read back through a second stub. */
  stub = velIOOpen("db:c.txt", 4);
  CHECK(stub != NULL);
  if (stub != NULL) {
    CHECK_U64("write c", WriteText(stub, "root row"), 8);
    velIOClose(stub);
  }
  stub = velIOOpen("db:c.txt", 0);
  CHECK(stub != NULL);
  if (stub != NULL) {
    size = ReadAll(stub, buffer, sizeof buffer);
    CHECK_BYTES("read c", buffer, size, "root row");
    velIOClose(stub);
  }
  rowSize = ReadDatabaseRow(dbPath, "c.txt", "", buffer, sizeof buffer);
  CHECK_BYTES("row c", buffer, rowSize < 0 ? 0 : (size_t)rowSize, "root row");
  CHECK_I32("rows in FileStorage", CountDatabaseRows(dbPath), 2);

  /* A bare path never reaches "db:". */
  CHECK(velIOOpen("docs/b.txt", 0) == NULL);
  CHECK(velIOOpen("db:", 1) == NULL);
}

/* velFSVelToSyspath of one virtual path: the length, and the text fetched with room for the
 * terminator, must be `want`; with a buffer of exactly that length no terminator is written. */
static void CheckSyspath(int line, const char* virtualPath, const char* want) {
  char buffer[4096];
  const uint64_t length = strlen(want);
  CheckU64(line, virtualPath, velFSVelToSyspath(virtualPath, NULL, 0), length);
  memset(buffer, '#', sizeof buffer);
  CheckU64(line, virtualPath, velFSVelToSyspath(virtualPath, buffer, length + 1), length);
  CheckBytes(line, virtualPath, buffer, strlen(buffer), want);
  memset(buffer, '#', sizeof buffer);
  CheckU64(line, virtualPath, velFSVelToSyspath(virtualPath, buffer, length), length);
  CheckTrue(line, buffer[length] == '#', "no terminator in a buffer of exactly the length");
}

int main(void) {
  /* Load-time registration: nothing of velFS has been called yet. */
  const int32_t registrations = velIORegistrations();
  if (registrations < 1) {
    fprintf(stderr, "host_program: FAILED: velIORegistrations() is %d before any call; "
            "libvelfs did not register at load time\n", (int)registrations);
    return 1;
  }

  char scratch[] = "/tmp/velfs-host-XXXXXX";
  if (mkdtemp(scratch) == NULL) {
    perror("host_program: mkdtemp");
    return 1;
  }
  char appDir[4096], appDirBackslashed[4096], dbPath[4096], want[4096];
  Join(appDir, sizeof appDir, scratch, "app");
  Join(dbPath, sizeof dbPath, scratch, "store.db");
  CHECK_I32("velFSCreateDirectory", velFSCreateDirectory(appDir), 1);
  strcpy(appDirBackslashed, appDir);
  for (char* c = appDirBackslashed; *c != '\0'; ++c) {
    if (*c == '/') *c = '\\';
  }

  velFSMountPath("app:", appDirBackslashed); /* normalised to appDir */
  velFSMountPath("db:", dbPath);             /* names nothing yet: a new database file */
  velFSMountPath("app:", dbPath);            /* the name is taken: the first mount stays */

  Join(want, sizeof want, appDir, "notes/a.txt");
  CheckSyspath(__LINE__, "app:notes/a.txt", want);
  CheckSyspath(__LINE__, "app:notes\\a.txt", want);
  Join(want, sizeof want, appDir, "");
  CheckSyspath(__LINE__, "app:", want);
  Join(want, sizeof want, dbPath, "docs/b.txt");
  CheckSyspath(__LINE__, "db:docs/b.txt", want);
  CHECK_U64("no mount name", velFSVelToSyspath("notes/a.txt", NULL, 0), 0);
  CHECK_U64("unknown mount name", velFSVelToSyspath("nope:a.txt", NULL, 0), 0);
  CHECK_U64("mount name in another case", velFSVelToSyspath("APP:a.txt", NULL, 0), 0);

  RunAppMount(appDir);
  RunDbMount(dbPath);

  /* Nothing is open any more: unmount both names. */
  velFSUnmountPath("app:");
  velFSUnmountPath("db:");
  CHECK_U64("app: after unmount", velFSVelToSyspath("app:notes/a.txt", NULL, 0), 0);
  CHECK_U64("db: after unmount", velFSVelToSyspath("db:docs/b.txt", NULL, 0), 0);
  CHECK(velIOOpen("notes/a.txt", 0) == NULL);
  CHECK(velIOOpen("db:docs/b.txt", 0) == NULL);
  CHECK_I32("registrations unchanged", velIORegistrations(), registrations);

  if (nftw(scratch, RemoveEntry, 16, FTW_DEPTH | FTW_PHYS) != 0) {
    fprintf(stderr, "host_program: FAILED: cannot remove %s\n", scratch);
    ++failures;
  }

  if (failures != 0) {
    fprintf(stderr, "host_program: %d check(s) failed\n", failures);
    return 1;
  }
  printf("host_program: all checks passed (%d registration(s) at load time)\n",
         (int)registrations);
  return 0;
}
