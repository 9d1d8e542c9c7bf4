// WriteZip (support.h) with zlib, the same on every platform: each member is a local header and
// its data (stored, or raw deflate at zlib's default level), then the central directory in the
// same order, then the end record with the archive comment. Names are raw bytes with no flags; a
// name ending in '/' is a directory member without data. Beyond 65,535 members the end record
// counts 0xFFFF, as a writer without ZIP64 records leaves it.
#include <zlib.h>

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <initializer_list>

#include "support.h"

namespace velfs_test {
namespace {

// Little-endian fields: {value, width in bytes}.
void Put(std::string& out, std::initializer_list<std::pair<uint32_t, int>> fields) {
  for (const auto& [value, width] : fields) {
    for (int byte = 0; byte < width; ++byte) out.push_back(static_cast<char>(value >> 8 * byte));
  }
}

// Raw deflate (no zlib header), as a ZIP reader inflates it.
std::string Deflate(const std::string& data) {
  z_stream stream{};
  deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
  std::string out(deflateBound(&stream, static_cast<uLong>(data.size())), '\0');
  stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(data.data()));
  stream.avail_in = static_cast<uInt>(data.size());
  stream.next_out = reinterpret_cast<Bytef*>(out.data());
  stream.avail_out = static_cast<uInt>(out.size());
  EXPECT_EQ(deflate(&stream, Z_FINISH), Z_STREAM_END);
  out.resize(stream.total_out);
  deflateEnd(&stream);
  return out;
}

}  // namespace

void WriteZip(const std::string& path, const std::vector<ZipMember>& members,
              const std::string& comment, const std::string& prefix) {
  std::string archive = prefix, directory;
  for (const ZipMember& member : members) {
    const bool isDirectory = !member.name.empty() && member.name.back() == '/';
    const bool deflated = member.deflated && !isDirectory;
    const std::string stored = deflated ? Deflate(member.data) : member.data;
    const uint32_t crc = crc32(0, reinterpret_cast<const Bytef*>(member.data.data()),
                               static_cast<uInt>(member.data.size()));
    // The fields that the local header and the central directory entry share; the date is
    // 1980-01-01.
    std::string common;
    Put(common, {{deflated ? 20 : 10, 2}, {0, 2}, {deflated ? 8 : 0, 2}, {0, 2}, {0x21, 2},
                 {crc, 4}, {static_cast<uint32_t>(stored.size()), 4},
                 {static_cast<uint32_t>(member.data.size()), 4},
                 {static_cast<uint32_t>(member.name.size()), 2}, {0, 2}});
    // Central entry: made by Unix 2.0, no comment, disk 0, Unix mode in the external attributes.
    Put(directory, {{0x02014b50, 4}, {(3u << 8) | 20, 2}});
    directory += common;
    Put(directory, {{0, 2}, {0, 2}, {0, 2}, {(isDirectory ? 040755u : 0100644u) << 16, 4},
                    {static_cast<uint32_t>(archive.size()), 4}});
    directory += member.name;
    Put(archive, {{0x04034b50, 4}});
    archive += common + member.name + stored;
  }
  const uint32_t count = static_cast<uint32_t>(std::min<std::size_t>(members.size(), 0xFFFF));
  const uint32_t directoryOffset = static_cast<uint32_t>(archive.size());
  archive += directory;
  Put(archive, {{0x06054b50, 4}, {0, 2}, {0, 2}, {count, 2}, {count, 2},
                {static_cast<uint32_t>(directory.size()), 4}, {directoryOffset, 4},
                {static_cast<uint32_t>(comment.size()), 2}});
  archive += comment;
  // The path is UTF-8; on Windows the stream opens it by its UTF-16 name.
  std::ofstream out(std::filesystem::u8path(path), std::ios::binary | std::ios::trunc);
  out.write(archive.data(), static_cast<std::streamsize>(archive.size()));
  ASSERT_TRUE(out.good()) << "cannot write " << path;
}

}  // namespace velfs_test
