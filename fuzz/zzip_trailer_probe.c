/*
 * zzip_trailer_probe: opens each file named on the command line with Debian's zziplib directly,
 * through zziplib's own POSIX input and without velFS's guard (src/archive/archive_io.h), and
 * prints whether it opened and how many members it lists. Run under valgrind it shows
 * CVE-2024-39134 on the regression inputs of fuzz/corpus/archive/ (docs/reliability.md):
 *
 *   cc fuzz/zzip_trailer_probe.c $(pkg-config --cflags --libs zziplib) -o /tmp/zzip_trailer_probe
 *   valgrind /tmp/zzip_trailer_probe fuzz/corpus/archive/cve-2024-39134-*.zip
 */
#include <stdio.h>
#include <zzip/zzip.h>

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    zzip_error_t error = ZZIP_NO_ERROR;
    ZZIP_DIR* dir = zzip_dir_open(argv[i], &error);
    if (dir == NULL) {
      printf("%s: not opened (zziplib error %d)\n", argv[i], (int)error);
      continue;
    }
    int members = 0;
    ZZIP_DIRENT entry;
    while (zzip_dir_read(dir, &entry)) ++members;
    zzip_dir_close(dir);
    printf("%s: opened, %d members\n", argv[i], members);
  }
  return 0;
}
