// WriteZip (support.h) for the Windows build, where no libzip is available: the archive is
// written here with zlib, in the shape libzip gives the same members. Each member is a local
// header and its data (stored, or raw deflate with zlib's default level), then the central
// directory in the same order, then the end record with the archive comment. Names are stored
// as their raw bytes with no flags; a name ending in '/' is a directory member without data.
#include <zlib.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "support.h"

namespace velfs_test {
namespace {

void Put16(std::string& out, uint32_t value) {
  out.push_back(static_cast<char>(value & 0xFF));
  out.push_back(static_cast<char>((value >> 8) & 0xFF));
}

void Put32(std::string& out, uint32_t value) {
  Put16(out, value & 0xFFFF);
  Put16(out, value >> 16);
}

// The member's bytes as raw deflate (no zlib header), as a ZIP reader inflates them.
std::string Deflate(const std::string& data) {
  z_stream stream{};
  if (deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8,
                   Z_DEFAULT_STRATEGY) != Z_OK) {
    return std::string();
  }
  std::string out(deflateBound(&stream, static_cast<uLong>(data.size())), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  const int result = deflate(&stream, Z_FINISH);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return result == Z_STREAM_END ? out : std::string();
}

}  // namespace

void WriteZip(const std::string& path, const std::vector<ZipMember>& members,
              const std::string& comment) {
  std::string archive;
  std::string directory;
  for (const ZipMember& member : members) {
    const bool isDirectory = !member.name.empty() && member.name.back() == '/';
    const bool deflated = member.deflated && !isDirectory;
    const std::string stored = deflated ? Deflate(member.data) : member.data;
    ASSERT_TRUE(!deflated || !stored.empty() || member.data.empty()) << member.name;
    const uint32_t crc = static_cast<uint32_t>(
        crc32(0, reinterpret_cast<const Bytef*>(member.data.data()),
              static_cast<uInt>(member.data.size())));
    const uint32_t offset = static_cast<uint32_t>(archive.size());
    const uint32_t method = deflated ? 8 : 0;
    const uint32_t version = deflated ? 20 : 10;

    // The fields that the local header and the central directory entry share.
    std::string common;
    Put16(common, version);  // version needed to extract
    Put16(common, 0);        // flags
    Put16(common, method);
    Put16(common, 0);       // modification time
    Put16(common, 0x21);    // modification date: 1980-01-01
    Put32(common, crc);
    Put32(common, static_cast<uint32_t>(stored.size()));
    Put32(common, static_cast<uint32_t>(member.data.size()));
    Put16(common, static_cast<uint32_t>(member.name.size()));
    Put16(common, 0);  // extra field length

    Put32(archive, 0x04034b50);
    archive += common;
    archive += member.name;
    archive += stored;

    Put32(directory, 0x02014b50);
    Put16(directory, (3u << 8) | 20);  // made by: Unix, 2.0
    directory += common;
    Put16(directory, 0);  // comment length
    Put16(directory, 0);  // disk number
    Put16(directory, 0);  // internal attributes
    Put32(directory, (isDirectory ? 040755u : 0100644u) << 16);
    Put32(directory, offset);
    directory += member.name;
  }
  const uint32_t directoryOffset = static_cast<uint32_t>(archive.size());
  archive += directory;
  Put32(archive, 0x06054b50);
  Put16(archive, 0);  // this disk
  Put16(archive, 0);  // disk of the central directory
  Put16(archive, static_cast<uint32_t>(members.size()));
  Put16(archive, static_cast<uint32_t>(members.size()));
  Put32(archive, static_cast<uint32_t>(directory.size()));
  Put32(archive, directoryOffset);
  Put16(archive, static_cast<uint32_t>(comment.size()));
  archive += comment;

  // The path is UTF-8; the stream opens it by its UTF-16 name.
  std::ofstream out(std::filesystem::u8path(path), std::ios::binary | std::ios::trunc);
  out.write(archive.data(), static_cast<std::streamsize>(archive.size()));
  ASSERT_TRUE(out.good()) << "cannot write " << path;
}

}  // namespace velfs_test
