// `ArchiveIo`, zziplib's plug-in I/O table over whole-file read-only mappings.
//
// zziplib reads every archive through these five operations: `MappedOpen` maps the archive file
// whole once, and reads, seeks and size queries are served from the mapping (a read is a copy,
// never a system call). Handles are 32-bit numbers greater than 0, unique among open records;
// 0 and unknown values are bad handles, answered with -1. The table is one static object,
// filled once, that outlives every archive zziplib opens with it.
//
// Threads: archives may be opened, read and closed on different threads at once (the table of
// open records has its own lock); one archive's handle is used by one thread at a time, which
// the archive storage's lock ensures.
//
// A file whose trailer would make Debian's zziplib read beyond its data (ReachesTrailerOverRead)
// is mapped like any other, but its size query answers -1: zziplib then gives up before its
// trailer search, closes the handle and answers null, as for any file it cannot read as an
// archive (no ".zip" retry, which only follows a failed open).
//
// zziplib trusts the central directory: it checks no CRC-32, hands out the raw bytes of an
// encrypted member, reads a member's declared size whatever lies there, and lets any number of
// entries point at one stream. MappedOpen therefore reads the central directory itself, with the
// record layouts of zziplib's zzip/format.h, from the end record that zziplib's trailer search
// takes, and keeps what each member's entry says (ReadMembers). A file whose entries cannot be
// walked, or whose members' local headers and data overlap (a ZIP bomb of many entries over one
// stream), is refused at open, so zziplib answers null for it.
#ifndef VELFS_ARCHIVE_ARCHIVE_IO_H
#define VELFS_ARCHIVE_ARCHIVE_IO_H

#include <zzip/plugin.h>
#include <zzip/zzip.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>

namespace velfs {

// The largest archive MappedOpen accepts: 2,147,483,648 bytes (that size itself is accepted).
inline constexpr zzip_off_t kMaxArchiveSize = 0x80000000;

// The table: zzip_init_io with flags 0, then the five operations below.
zzip_plugin_io_handlers* ArchiveIo();

// CVE-2024-39134 (zziplib 0.13.72, Debian's build, unfixed): the trailer search of
// zzip_dir_fdopen_ext_io reads the file's last bytes (at most 1,024) into a stack buffer and scans
// it backwards from the end. A "PK\5\6" record is taken when at least 20 bytes of it were read; a
// ZIP64 record "PK\6\6" when at least 54 were read, although its last field (the 8-byte offset of
// the central directory at +48) ends at +56. A ZIP64 signature that starts 54 or 55 bytes before
// the end of the file, with no "PK\5\6" starting 20 to 53 bytes before the end (which the
// backward scan would meet first), therefore makes zziplib read 2 or 1 bytes beyond the data it
// read: past its stack buffer when the file is a multiple of 512 bytes and at least 1,024 long,
// into unwritten buffer bytes otherwise. Only the first pass of the scan ends at the end of the
// file; each later pass ends 512 bytes inside the pass before, which met every signature there
// with more bytes behind it. So the file's last 55 bytes alone decide. True for exactly those
// files (`size` bytes at `bytes`); false for files shorter than 22 bytes, which zziplib refuses
// unread.
bool ReachesTrailerOverRead(const unsigned char* bytes, uint64_t size);

// What the central directory says of one member, for the checks zziplib does not make.
struct MemberFacts {
  uint32_t crc32 = 0;  // of the uncompressed bytes
  // False for an encrypted member (general-purpose flag bit 0), a member whose local header is
  // missing, and one whose data (its compressed size; for a stored member the larger of its two
  // sizes) runs past the start of the central directory: such a member must not be opened.
  bool readable = false;
};
// Members by the name zziplib gives them (up to the first NUL); the first entry of a name wins,
// as zziplib's own lookup finds the first.
using MemberIndex = std::unordered_map<std::string, MemberFacts>;

// The members of the `size` bytes at `bytes` as the end record nearest the end of the file
// describes them (the one zziplib's backward trailer search meets first, with at least its first
// 20 bytes in the file); null when there is no such record within the last 65,557 bytes, its
// entries run outside the central directory or the file, or two members' spans (local header
// to the end of the data) overlap.
std::shared_ptr<const MemberIndex> ReadMembers(const unsigned char* bytes, uint64_t size);

// The member index of the archive open on `handle` (zzip_dirfd of its ZZIP_DIR); null for a
// handle that is not open.
std::shared_ptr<const MemberIndex> MembersOf(int handle);

// zzip_opendir_ext_io of `path` with `modes` over ArchiveIo, or null. When zziplib fails to read
// a file it has opened, 0.13.72 closes the handle itself but 0.13.80 leaves it open (a mapping,
// and on Windows a file that nobody may write); this closes such a handle before answering null.
ZZIP_DIR* OpenArchiveDir(const char* path, int modes);

int MappedOpen(zzip_char_t* path, int flags, ...);
int MappedClose(int handle);
zzip_ssize_t MappedRead(int handle, void* destination, zzip_size_t count);
zzip_off_t MappedSeek(int handle, zzip_off_t offset, int whence);
zzip_off_t MappedFileSize(int handle);

}  // namespace velfs

#endif  // VELFS_ARCHIVE_ARCHIVE_IO_H
