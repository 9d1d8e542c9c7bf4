/*
 * database_root.c — a walk through the velFS C API on a database root.
 *
 * Usage: velfs_database_root [DATABASE]   (default: example.db in the current directory)
 *
 * Opens (or creates) the SQLite database file DATABASE as a velFS root, writes three files in
 * one transaction, lists the root and every directory below it, and reads every file back.
 * Every step is printed. Exits 0 on success, 1 with a message on the first failure.
 */
#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "velfs.h"

enum { kPreviewBytes = 32, kMaxFiles = 64, kMaxDepth = 16 };

static const unsigned char kLogo[] = {0x89, 'P', 'N', 'G', 0x0d, 0x0a, 0x1a, 0x0a,
                                      0x00, 0x00, 0x00, 0x0d, 'I',  'H', 'D',  'R'};

typedef struct ExampleFile {
  const char* path;
  const void* bytes;
  uint64_t size;
} ExampleFile;

/* Full names of the files found while listing; each was malloc'd by the library. */
static char* foundFiles[kMaxFiles];
static int foundFileCount;

static int Fail(const char* what, const char* path) {
  fprintf(stderr, "velfs example: FAILED: %s%s%s\n", what, path ? ": " : "", path ? path : "");
  return 1;
}

/* Writes one file: the database back-end ignores the open mode and keeps existing content, so
 * the file is first cut to length 0 (this also creates its row). */
static int WriteFile(DirHandle* dir, const ExampleFile* file) {
  FileHandle* handle = velfsCreateFileIndir(dir, file->path, 1 /* "wb" */);
  if (handle == NULL) return Fail("velfsCreateFileIndir", file->path);
  if (!velfsResize(handle, 0)) {
    velfsCloseFile(handle);
    return Fail("velfsResize to 0", file->path);
  }
  uint64_t written = velfsWrite(handle, file->bytes, file->size);
  velfsCloseFile(handle);
  if (written != file->size) return Fail("velfsWrite wrote a short count", file->path);
  printf("  wrote %-22s %llu bytes\n", file->path, (unsigned long long)file->size);
  return 0;
}

/* Lists one directory ("" is the root) and every directory below it. */
static int ListDirectory(DirHandle* dir, const char* path, int depth) {
  if (depth > kMaxDepth) return Fail("directories nested too deep", path);
  EnumHandle* listing = velfsCreateEnumIndir(dir, path);
  if (listing == NULL) return Fail("velfsCreateEnumIndir", path);
  printf("%*slisting \"%s\"\n", depth * 2, "", path);
  int result = 0;
  while (result == 0 && velfsMoveNext(listing)) {
    char* fullName = NULL;
    if (!velfsGetFullName(listing, &fullName)) {
      result = Fail("velfsGetFullName", path);
      break;
    }
    bool isDirectory = velfsIsDirectory(listing);
    printf("%*s  %-4s %s\n", depth * 2, "", isDirectory ? "dir" : "file", fullName);
    if (isDirectory) {
      result = ListDirectory(dir, fullName, depth + 1);
      free(fullName);
    } else if (foundFileCount < kMaxFiles) {
      foundFiles[foundFileCount++] = fullName; /* freed in main */
    } else {
      free(fullName);
      result = Fail("too many files", path);
    }
  }
  velfsCloseEnum(listing);
  return result;
}

/* Reads one file back: its size (seek to the end, tell), then its content from the start. */
static int ReadFile(DirHandle* dir, const char* path, const ExampleFile* expected, int count) {
  FileHandle* handle = velfsCreateFileIndir(dir, path, 0 /* "rb" */);
  if (handle == NULL) return Fail("velfsCreateFileIndir for reading", path);
  velfsSeek(handle, 0, 2);
  int32_t size = velfsTell(handle);
  velfsSeek(handle, 0, 0);
  unsigned char* content = malloc(size > 0 ? (size_t)size : 1);
  if (content == NULL) {
    velfsCloseFile(handle);
    return Fail("out of memory", path);
  }
  uint64_t got = size > 0 ? velfsRead(handle, content, (uint64_t)size) : 0;
  velfsCloseFile(handle);

  printf("  read  %-22s %ld bytes, preview \"", path, (long)size);
  for (uint64_t i = 0; i < got && i < kPreviewBytes; ++i) {
    unsigned char c = content[i];
    if (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') {
      putchar(c);
    } else if (c == '\n') {
      fputs("\\n", stdout);
    } else {
      printf("\\x%02x", c);
    }
  }
  printf("\"%s\n", got > kPreviewBytes ? "..." : "");

  int result = 0;
  if (size < 0 || got != (uint64_t)size) result = Fail("velfsRead returned a short count", path);
  for (int i = 0; result == 0 && i < count; ++i) {
    if (strcmp(expected[i].path, path) != 0) continue;
    if (got != expected[i].size || memcmp(content, expected[i].bytes, (size_t)got) != 0) {
      result = Fail("content differs from what was written", path);
    }
  }
  free(content);
  return result;
}

int main(int argc, char** argv) {
  const char* root = argc > 1 ? argv[1] : "example.db";
  static const char kReadme[] = "velFS keeps these files as rows of one SQLite table.\n";
  static const char kTodo[] = "1. write files\n2. list them\n3. read them back\n";
  const ExampleFile files[] = {
      {"docs/readme.txt", kReadme, sizeof kReadme - 1},
      {"docs/notes/todo.txt", kTodo, sizeof kTodo - 1},
      {"images/logo.bin", kLogo, sizeof kLogo},
  };
  const int fileCount = (int)(sizeof files / sizeof files[0]);

  printf("velfsOpenDir(\"%s\")\n", root);
  DirHandle* dir = velfsOpenDir(root);
  if (dir == NULL) return Fail("velfsOpenDir could not open the root", root);

  int result = 0;
  printf("velfsBeginTrans: writing %d files in one transaction\n", fileCount);
  if (!velfsBeginTrans(dir)) result = Fail("velfsBeginTrans", root);
  for (int i = 0; result == 0 && i < fileCount; ++i) result = WriteFile(dir, &files[i]);
  if (result == 0) {
    if (velfsCommitTrans(dir)) {
      printf("velfsCommitTrans: committed\n");
    } else {
      result = Fail("velfsCommitTrans", root);
    }
  }

  if (result == 0) {
    printf("velfsCreateEnumIndir: listing the root and every directory below it\n");
    result = ListDirectory(dir, "", 0);
  }

  if (result == 0) {
    printf("reading back %d files\n", foundFileCount);
    for (int i = 0; result == 0 && i < foundFileCount; ++i) {
      result = ReadFile(dir, foundFiles[i], files, fileCount);
    }
  }
  for (int i = 0; result == 0 && i < fileCount; ++i) {
    bool listed = false;
    for (int j = 0; j < foundFileCount; ++j) listed |= strcmp(foundFiles[j], files[i].path) == 0;
    if (!listed) result = Fail("a written file was not listed", files[i].path);
  }
  for (int i = 0; i < foundFileCount; ++i) free(foundFiles[i]);

  velfsCloseDir(dir);
  printf("velfsCloseDir\n");
  if (result != 0) return 1;
  printf("velfs example: OK (%d files written, listed and read back from %s)\n", fileCount, root);
  return 0;
}
