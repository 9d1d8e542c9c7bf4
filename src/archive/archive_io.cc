// The mapped archive input: zziplib's five I/O operations served from whole-file mappings.
#include "archive/archive_io.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "host/host.h"

namespace velfs {
namespace {

// The bytes of a run of reads kept mapped behind its end, and the step in which the older ones
// are released (MappedRead): a run holds at most 40 MiB of the mapping in memory.
constexpr uint32_t kKeptBehind = 36u << 20;
constexpr uint32_t kReleaseStep = 4u << 20;

// One open archive input: the mapping holds every byte of the file; reads copy from it.
struct MappedFile {
  host::FileMapping mapping;
  uint32_t size = 0;
  uint32_t position = 0;          // always at most size
  // The current run of reads, each starting where the one before ended (MappedRead); the
  // pages of the run before runStart have been released.
  uint32_t runStart = 0;
  uint32_t runEnd = 0;
  bool overReadsTrailer = false;  // ReachesTrailerOverRead: the size query answers -1
  std::shared_ptr<const MemberIndex> members;
};

// The open records of every archive of the process. Handle h names slot h - 1; a closed
// record's slot is reused by a later open. Archives on different threads open and close records
// at once, so the table is read and changed only under its lock. A record itself is used only
// through its own archive, which takes turns on its own lock (archive_storage.cc).
struct OpenRecords {
  std::mutex lock;
  std::vector<std::unique_ptr<MappedFile>> slots;
};

OpenRecords& Records() {
  static OpenRecords records;
  return records;
}

// The handle of this thread's last successful MappedOpen while it is still open; 0 otherwise.
// zziplib opens and closes an archive's handle on the thread that opens the archive.
thread_local int lastOpenHandle = 0;

MappedFile* Find(int handle) {
  OpenRecords& records = Records();
  const std::lock_guard<std::mutex> guard(records.lock);
  if (handle <= 0 || static_cast<std::size_t>(handle) > records.slots.size()) return nullptr;
  return records.slots[static_cast<std::size_t>(handle) - 1].get();
}

// The ZIP records ReadMembers reads, as zziplib's zzip/format.h lays them out (zzip_disk_trailer,
// zzip_disk_entry, zzip_file_header): each record's signature, and the offset of each field
// used. (Debian's zzip/format.h cannot be included: it names a header the package lacks.)
constexpr unsigned char kEndSignature[] = {'P', 'K', 5, 6};
constexpr uint64_t kEndEntries = 10, kEndDirectorySize = 12, kEndDirectoryOffset = 16;
constexpr unsigned char kEntrySignature[] = {'P', 'K', 1, 2};
constexpr uint64_t kEntryFlags = 8, kEntryMethod = 10, kEntryCrc = 16, kEntryCompressed = 20,
                   kEntrySize = 24, kEntryNameLength = 28, kEntryExtraLength = 30,
                   kEntryCommentLength = 32, kEntryLocalOffset = 42, kEntryLength = 46;
constexpr unsigned char kLocalSignature[] = {'P', 'K', 3, 4};
constexpr uint64_t kLocalNameLength = 26, kLocalExtraLength = 28, kLocalLength = 30;

bool HasSignature(const unsigned char* at, const unsigned char (&signature)[4]) {
  return std::memcmp(at, signature, 4) == 0;
}
// Little-endian fields.
uint32_t Le16(const unsigned char* field) { return field[0] | field[1] << 8; }
uint32_t Le32(const unsigned char* field) {
  return static_cast<uint32_t>(field[0]) | static_cast<uint32_t>(field[1]) << 8 |
         static_cast<uint32_t>(field[2]) << 16 | static_cast<uint32_t>(field[3]) << 24;
}

}  // namespace

std::shared_ptr<const MemberIndex> ReadMembers(const unsigned char* bytes, uint64_t size) {
  // The end record: its signature, the entry count, the directory's size and offset are the 20
  // bytes zziplib needs; the comment length after them is not used.
  constexpr uint64_t kEndFields = 20;
  constexpr uint64_t kEndReach = 22 + 65535;
  const unsigned char* end = nullptr;
  for (uint64_t distance = kEndFields; distance <= std::min(size, kEndReach); ++distance) {
    if (HasSignature(bytes + (size - distance), kEndSignature)) {
      end = bytes + (size - distance);
      break;
    }
  }
  if (end == nullptr) return nullptr;
  const uint64_t directory = Le32(end + kEndDirectoryOffset);
  const uint64_t directoryEnd = directory + Le32(end + kEndDirectorySize);
  if (directoryEnd > static_cast<uint64_t>(end - bytes)) return nullptr;

  auto members = std::make_shared<MemberIndex>();
  std::vector<std::pair<uint64_t, uint64_t>> spans;  // [local header, end of data)
  uint64_t at = directory;
  for (uint32_t count = Le16(end + kEndEntries); count > 0; --count) {
    if (at + kEntryLength > directoryEnd) return nullptr;
    const unsigned char* entry = bytes + at;
    if (!HasSignature(entry, kEntrySignature)) return nullptr;
    const uint64_t nameLength = Le16(entry + kEntryNameLength);
    const uint64_t next = at + kEntryLength + nameLength + Le16(entry + kEntryExtraLength) +
                          Le16(entry + kEntryCommentLength);
    if (next > directoryEnd) return nullptr;
    MemberFacts facts;
    facts.crc32 = Le32(entry + kEntryCrc);
    const uint64_t local = Le32(entry + kEntryLocalOffset);
    if (local + kLocalLength <= directory && HasSignature(bytes + local, kLocalSignature)) {
      const uint64_t compressed = Le32(entry + kEntryCompressed);
      const uint64_t stored = Le16(entry + kEntryMethod) == 0
                                  ? std::max<uint64_t>(compressed, Le32(entry + kEntrySize))
                                  : compressed;
      const uint64_t dataEnd = local + kLocalLength + Le16(bytes + local + kLocalNameLength) +
                               Le16(bytes + local + kLocalExtraLength) + stored;
      spans.emplace_back(local, std::min(dataEnd, directory));
      facts.readable = dataEnd <= directory && (Le16(entry + kEntryFlags) & 1) == 0;
    }
    const auto* name = reinterpret_cast<const char*>(entry + kEntryLength);
    members->emplace(std::string(name, strnlen(name, nameLength)), facts);
    at = next;
  }
  std::sort(spans.begin(), spans.end());
  for (std::size_t i = 1; i < spans.size(); ++i) {
    if (spans[i].first < spans[i - 1].second) return nullptr;
  }
  return members;
}

std::shared_ptr<const MemberIndex> MembersOf(int handle) {
  const MappedFile* file = Find(handle);
  return file != nullptr ? file->members : nullptr;
}

bool ReachesTrailerOverRead(const unsigned char* bytes, uint64_t size) {
  constexpr uint64_t kTrailerSize = 22;      // zziplib refuses shorter files unread
  constexpr uint64_t kTrailerMatch = 20;     // bytes zziplib wants from a "PK\5\6" on
  constexpr uint64_t kTrailer64Match = 54;   // bytes it wants from a "PK\6\6" on
  constexpr uint64_t kTrailer64Fields = 56;  // bytes it reads from a "PK\6\6" on
  if (size < kTrailerSize) return false;
  // The distance from the signature to the end of the file, in the order zziplib meets them.
  for (uint64_t distance = kTrailerMatch; distance < kTrailer64Fields && distance <= size;
       ++distance) {
    const unsigned char* tail = bytes + (size - distance);
    if (tail[0] != 'P' || tail[1] != 'K') continue;
    if (tail[2] == 5 && tail[3] == 6) return false;  // the trailer zziplib takes, read whole
    if (distance >= kTrailer64Match && tail[2] == 6 && tail[3] == 6) return true;
  }
  return false;
}

zzip_plugin_io_handlers* ArchiveIo() {
  // Filled once, by the first caller (a function-local static is initialised exactly once even
  // when threads race to it), and never written again while archives read through it.
  static zzip_plugin_io_handlers table = [] {
    zzip_plugin_io_handlers io;
    zzip_init_io(&io, 0);
    io.fd.open = &MappedOpen;
    io.fd.close = &MappedClose;
    io.fd.read = &MappedRead;
    io.fd.seeks = &MappedSeek;
    io.fd.filesize = &MappedFileSize;
    return io;
  }();
  return &table;
}

ZZIP_DIR* OpenArchiveDir(const char* path, int modes) {
  lastOpenHandle = 0;
  ZZIP_DIR* dir = zzip_opendir_ext_io(path, modes, nullptr, ArchiveIo());
  if (dir == nullptr && lastOpenHandle != 0) MappedClose(lastOpenHandle);
  return dir;
}

// `flags` is ignored: the mapping is always read-only, and share modes have no POSIX counterpart.
int MappedOpen(zzip_char_t* path, int, ...) {
  try {
    auto file = std::make_unique<MappedFile>();
    file->mapping = host::FileMapping::Map(path, kMaxArchiveSize);
    if (!file->mapping) return -1;
    file->size = static_cast<uint32_t>(file->mapping.size());
    file->overReadsTrailer = ReachesTrailerOverRead(file->mapping.view(), file->mapping.size());
    if (!file->overReadsTrailer) {
      file->members = ReadMembers(file->mapping.view(), file->mapping.size());
      if (!file->members) return -1;  // not walkable, or overlapping members: not an archive
    }
    OpenRecords& records = Records();
    const std::lock_guard<std::mutex> guard(records.lock);
    std::size_t slot = 0;
    while (slot < records.slots.size() && records.slots[slot] != nullptr) ++slot;
    if (slot == records.slots.size()) records.slots.emplace_back();
    records.slots[slot] = std::move(file);
    lastOpenHandle = static_cast<int>(slot + 1);
    return lastOpenHandle;
  } catch (...) {
    return -1;  // no exception may unwind through zziplib's C frames
  }
}

int MappedClose(int handle) {
  if (handle == lastOpenHandle) lastOpenHandle = 0;
  std::unique_ptr<MappedFile> closed;
  {
    OpenRecords& records = Records();
    const std::lock_guard<std::mutex> guard(records.lock);
    if (handle <= 0 || static_cast<std::size_t>(handle) > records.slots.size()) return -1;
    closed = std::move(records.slots[static_cast<std::size_t>(handle) - 1]);
  }
  return closed != nullptr ? 0 : -1;  // the view is unmapped here, outside the table's lock
}

zzip_ssize_t MappedRead(int handle, void* destination, zzip_size_t count) {
  MappedFile* file = Find(handle);
  if (file == nullptr) return -1;
  if (file->position > file->size) return 0;
  const zzip_size_t n = count < file->size - file->position ? count : file->size - file->position;
  if (file->position != file->runEnd) file->runStart = file->position;  // a seek: a new run
  std::memcpy(destination, file->mapping.view() + file->position, n);
  file->position += static_cast<uint32_t>(n);
  file->runEnd = file->position;
  // Streaming a member reads the mapping from front to back, and every page read would stay in
  // the process's memory until the archive closes: a 1 GiB member would cost 1 GiB. Once a run
  // of reads spans kKeptBehind + kReleaseStep, the pages of the run more than kKeptBehind behind
  // its end are released, which bounds the memory of a stream by that span. Shorter runs
  // (zziplib's directory, small members) release nothing; a read that goes back to released
  // pages maps them in again from the file. Every released page costs the system an unmapping
  // now and a fault when it is read again (a member read twice), whatever the step: how much a
  // run keeps, not how often it releases, decides that cost, so a run keeps most of what the
  // bound allows and releases in small steps.
  if (file->position - file->runStart >= kKeptBehind + kReleaseStep) {
    const uint32_t releaseTo = file->position - kKeptBehind;
    file->mapping.Release(file->runStart, releaseTo - file->runStart);
    file->runStart = releaseTo;
  }
  return static_cast<zzip_ssize_t>(n);
}

// Unsigned 32-bit arithmetic, so a target before the start wraps beyond `size`; a
// target outside the file (or an unknown whence) leaves the position and answers it.
zzip_off_t MappedSeek(int handle, zzip_off_t offset, int whence) {
  MappedFile* file = Find(handle);
  if (file == nullptr) return -1;
  const auto delta = static_cast<uint32_t>(offset);
  uint32_t target = file->position;
  if (whence == SEEK_SET) target = delta;
  if (whence == SEEK_CUR) target = file->position + delta;
  if (whence == SEEK_END) target = file->size + delta;
  if (target <= file->size) file->position = target;
  return file->position;
}

// The size as a signed 32-bit number: an archive of exactly 2^31 bytes answers a
// negative size, which zziplib takes as a failure. A file whose trailer zziplib would over-read
// (CVE-2024-39134, archive_io.h) answers -1, so that zziplib never starts its trailer search.
zzip_off_t MappedFileSize(int handle) {
  const MappedFile* file = Find(handle);
  if (file == nullptr || file->overReadsTrailer) return -1;
  return static_cast<int32_t>(file->size);
}

}  // namespace velfs
