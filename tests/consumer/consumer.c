/*
 * consumer.c — builds against an installed velFS (pkg-config or find_package) and checks that
 * the shared library works from plain C: a database root in a fresh temporary directory, one
 * file written, read back and listed. Exits 0 on success, 1 with a message otherwise.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdbool.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <velfs.h>

static int Fail(const char* what) {
  fprintf(stderr, "velfs consumer: FAILED: %s\n", what);
  return 1;
}

static int Run(const char* dbPath) {
  static const char kContent[] = "hello from a C consumer";
  const uint64_t kSize = sizeof kContent - 1;

  DirHandle* dir = velfsOpenDir(dbPath);
  if (dir == NULL) return Fail("velfsOpenDir");

  int result = 0;
  FileHandle* file = velfsCreateFileIndir(dir, "docs/hello.txt", 1);
  if (file == NULL) {
    result = Fail("velfsCreateFileIndir for writing");
  } else {
    if (velfsWrite(file, kContent, kSize) != kSize) result = Fail("velfsWrite");
    velfsCloseFile(file);
  }

  if (result == 0) {
    char buffer[64] = {0};
    file = velfsCreateFileIndir(dir, "docs/hello.txt", 0);
    if (file == NULL) {
      result = Fail("velfsCreateFileIndir for reading");
    } else {
      uint64_t got = velfsRead(file, buffer, sizeof buffer);
      if (got != kSize || memcmp(buffer, kContent, (size_t)kSize) != 0) {
        result = Fail("the bytes read back differ from the bytes written");
      }
      velfsCloseFile(file);
    }
  }

  if (result == 0) {
    EnumHandle* listing = velfsCreateEnumIndir(dir, "docs/");
    if (listing == NULL) {
      result = Fail("velfsCreateEnumIndir");
    } else {
      int found = 0;
      while (velfsMoveNext(listing)) {
        char* name = NULL;
        if (!velfsGetFullName(listing, &name)) {
          result = Fail("velfsGetFullName");
          break;
        }
        if (strcmp(name, "docs/hello.txt") == 0 && !velfsIsDirectory(listing)) ++found;
        free(name);
      }
      velfsCloseEnum(listing);
      if (result == 0 && found != 1) result = Fail("docs/hello.txt was not listed exactly once");
    }
  }

  velfsCloseDir(dir);
  return result;
}

int main(void) {
  char scratch[] = "/tmp/velfs-consumer-XXXXXX";
  if (mkdtemp(scratch) == NULL) return Fail("mkdtemp");
  char dbPath[sizeof scratch + 16];
  snprintf(dbPath, sizeof dbPath, "%s/store.db", scratch);

  int result = Run(dbPath);

  unlink(dbPath);
  rmdir(scratch);
  if (result == 0) printf("velfs consumer: OK\n");
  return result;
}
