// ZIP fixtures of the archive tests (archive_*_test.cc), written with libzip — no hand-made ZIP
// writer — and small helpers to look at the written bytes and at what the process holds open.
#ifndef VELFS_TESTS_ZIP_FIXTURE_H
#define VELFS_TESTS_ZIP_FIXTURE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace velfs::testing {

// One member as it is to appear in the central directory.
struct ZipMember {
  enum Kind { kStored, kDeflated, kDirectory, kBzip2 };

  std::string name;  // stored byte for byte (a kDirectory name must end in '/')
  std::string data;  // ignored for kDirectory
  Kind kind = kStored;
};

inline ZipMember Stored(std::string name, std::string data) {
  return {std::move(name), std::move(data), ZipMember::kStored};
}
inline ZipMember Deflated(std::string name, std::string data) {
  return {std::move(name), std::move(data), ZipMember::kDeflated};
}
inline ZipMember Directory(std::string name) {
  return {std::move(name), "", ZipMember::kDirectory};
}

// Writes a ZIP archive at `path` (replacing any file there) through libzip, the members in the
// given order, which is the order of the central directory. Afterwards the archive is read back
// with libzip and checked: every name is stored unchanged (raw bytes), every member has the
// requested method (stored 0, deflated 8) and its uncompressed size. Records a test failure and
// answers false when anything differs.
bool WriteZip(const std::string& path, const std::vector<ZipMember>& members);

// What libzip reads back from the central directory of an archive.
struct ZipEntryInfo {
  std::string name;  // raw bytes
  uint16_t method = 0;
  uint64_t size = 0;
  uint64_t compressedSize = 0;
};
std::vector<ZipEntryInfo> ReadCentralDirectory(const std::string& path);

// Offset of the local header ("PK\3\4", name length at +26, extra length at +28, name at +30)
// of member `name` in the archive bytes; npos when missing.
std::size_t LocalHeaderOffset(const std::string& archive, const std::string& name);
// Offset of the first data byte of member `name`, behind its local header; npos when missing.
std::size_t LocalDataOffset(const std::string& archive, const std::string& name);
// Offset of the central directory header of member `name`; npos when missing.
std::size_t CentralHeaderOffset(const std::string& archive, const std::string& name);
// Whether this libzip can write members with the BZIP2 method (12).
bool CanWriteBzip2();
// Offset of the first central directory header ("PK\1\2"); npos when missing.
std::size_t CentralDirectoryOffset(const std::string& archive);
// Offset of the end-of-central-directory record ("PK\5\6", searched from the end); npos.
std::size_t EndRecordOffset(const std::string& archive);

// Non-repeating test bytes from a xorshift32 generator; each byte takes one of `alphabet`
// values (256: any byte; fewer: compressible by deflate, yet without a period).
std::string PseudoRandomBytes(std::size_t length, uint32_t seed, unsigned alphabet = 256);

// The host's canonical name of a file (symbolic links resolved), as /proc shows it.
std::string CanonicalPath(const std::string& path);
// How many mappings in /proc/self/maps are of the file at `path`.
int MappingsOf(const std::string& path);
// How many descriptors in /proc/self/fd refer to the file at `path`.
int DescriptorsOn(const std::string& path);
// How many descriptors the process holds.
int OpenDescriptorCount();

}  // namespace velfs::testing

#endif  // VELFS_TESTS_ZIP_FIXTURE_H
