// Part 5.1: `ArchiveIo`, zziplib's plug-in I/O table over whole-file read-only mappings.
//
// zziplib reads every archive through these five operations: `MappedOpen` maps the archive file
// whole once, and reads, seeks and size queries are served from the mapping (a read is a copy,
// never a system call). Handles are 32-bit numbers greater than 0, unique among open records;
// 0 and unknown values are bad handles, answered with -1. The table is one static object that
// outlives every archive zziplib opens with it; `FillArchiveIo` writes the same values each
// time. One thread at a time per archive.
#ifndef VELFS_ARCHIVE_ARCHIVE_IO_H
#define VELFS_ARCHIVE_ARCHIVE_IO_H

#include <zzip/plugin.h>

namespace velfs {

// The largest archive MappedOpen accepts: 2,147,483,648 bytes (that size itself is accepted).
inline constexpr zzip_off_t kMaxArchiveSize = 0x80000000;

// zzip_init_io with flags 0, then the five operations below; answers the table.
zzip_plugin_io_handlers* FillArchiveIo();

int MappedOpen(zzip_char_t* path, int flags, ...);
int MappedClose(int handle);
zzip_ssize_t MappedRead(int handle, void* destination, zzip_size_t count);
zzip_off_t MappedSeek(int handle, zzip_off_t offset, int whence);
zzip_off_t MappedFileSize(int handle);

}  // namespace velfs

#endif  // VELFS_ARCHIVE_ARCHIVE_IO_H
