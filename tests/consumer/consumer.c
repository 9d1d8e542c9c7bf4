/*
 * consumer.c — builds against an installed velFS (pkg-config or find_package) and checks that
 * the shared library works from plain C: a database root in a fresh temporary directory, one
 * file written and read back. Exits 0 on success, 1 with a message otherwise.
 */
#define _POSIX_C_SOURCE 200809L
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <velfs.h>

int main(void) {
  static const char kContent[] = "hello from a C consumer";
  char scratch[] = "/tmp/velfs-consumer-XXXXXX";
  if (mkdtemp(scratch) == NULL) return 1;
  char dbPath[sizeof scratch + 16], buffer[64] = {0};
  snprintf(dbPath, sizeof dbPath, "%s/store.db", scratch);

  DirHandle* dir = velfsOpenDir(dbPath);
  FileHandle* file = velfsCreateFileIndir(dir, "docs/hello.txt", 1);
  const uint64_t written = velfsWrite(file, kContent, sizeof kContent - 1);
  velfsCloseFile(file);
  file = velfsCreateFileIndir(dir, "docs/hello.txt", 0);
  const uint64_t read = velfsRead(file, buffer, sizeof buffer);
  velfsCloseFile(file);
  velfsCloseDir(dir);
  unlink(dbPath);
  rmdir(scratch);

  if (dir == NULL || written != sizeof kContent - 1 || read != written ||
      memcmp(buffer, kContent, sizeof kContent - 1) != 0) {
    fprintf(stderr, "velfs consumer: FAILED: the bytes read back differ from the bytes written\n");
    return 1;
  }
  printf("velfs consumer: OK\n");
  return 0;
}
