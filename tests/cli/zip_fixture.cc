#include "zip_fixture.h"

#include <dirent.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <zip.h>

#include <climits>
#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace velfs::testing {
namespace {

uint16_t Little16(const std::string& bytes, std::size_t at) {
  return static_cast<uint16_t>(static_cast<unsigned char>(bytes[at]) |
                               static_cast<unsigned char>(bytes[at + 1]) << 8);
}

zip_int32_t MethodOf(ZipMember::Kind kind) {
  switch (kind) {
    case ZipMember::kDeflated:
      return ZIP_CM_DEFLATE;
    case ZipMember::kBzip2:
      return ZIP_CM_BZIP2;
    default:
      return ZIP_CM_STORE;
  }
}

std::string LibzipError(zip_t* archive) {
  const char* text = zip_strerror(archive);
  return text == nullptr ? std::string("?") : std::string(text);
}

}  // namespace

bool WriteZip(const std::string& path, const std::vector<ZipMember>& members) {
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
  if (archive == nullptr) {
    ADD_FAILURE() << "zip_open(" << path << ") failed with libzip error " << error;
    return false;
  }
  for (const ZipMember& member : members) {
    zip_int64_t index = -1;
    if (member.kind == ZipMember::kDirectory) {
      // zip_dir_add appends the '/' itself when the name lacks it; hand it the bare name.
      std::string bare = member.name;
      if (!bare.empty() && bare.back() == '/') bare.pop_back();
      index = zip_dir_add(archive, bare.c_str(), ZIP_FL_ENC_GUESS);
    } else {
      zip_source_t* source = zip_source_buffer(archive, member.data.data(), member.data.size(), 0);
      if (source == nullptr) {
        ADD_FAILURE() << "zip_source_buffer: " << LibzipError(archive);
        zip_discard(archive);
        return false;
      }
      index = zip_file_add(archive, member.name.c_str(), source, ZIP_FL_ENC_GUESS);
      if (index < 0) {
        zip_source_free(source);
      } else if (zip_set_file_compression(archive, static_cast<zip_uint64_t>(index),
                                          MethodOf(member.kind), 0) != 0) {
        ADD_FAILURE() << "zip_set_file_compression: " << LibzipError(archive);
        zip_discard(archive);
        return false;
      }
    }
    if (index < 0) {
      ADD_FAILURE() << "adding '" << member.name << "': " << LibzipError(archive);
      zip_discard(archive);
      return false;
    }
  }
  if (zip_close(archive) != 0) {
    ADD_FAILURE() << "zip_close(" << path << "): " << LibzipError(archive);
    zip_discard(archive);
    return false;
  }

  // Read the central directory back: the fixture is what the test believes it is.
  const std::vector<ZipEntryInfo> written = ReadCentralDirectory(path);
  bool same = written.size() == members.size();
  EXPECT_EQ(written.size(), members.size()) << path;
  for (std::size_t i = 0; same && i < members.size(); ++i) {
    const ZipMember& member = members[i];
    const auto method = static_cast<uint16_t>(MethodOf(member.kind));
    const uint64_t size = member.kind == ZipMember::kDirectory ? 0 : member.data.size();
    if (written[i].name != member.name || written[i].method != method || written[i].size != size) {
      ADD_FAILURE() << "member " << i << " reads back as '" << written[i].name << "' method "
                    << written[i].method << " size " << written[i].size << ", wanted '"
                    << member.name << "' method " << method << " size " << size;
      same = false;
    }
  }
  return same;
}

std::vector<ZipEntryInfo> ReadCentralDirectory(const std::string& path) {
  std::vector<ZipEntryInfo> entries;
  int error = 0;
  zip_t* archive = zip_open(path.c_str(), ZIP_RDONLY, &error);
  if (archive == nullptr) return entries;
  const zip_int64_t count = zip_get_num_entries(archive, 0);
  for (zip_int64_t i = 0; i < count; ++i) {
    zip_stat_t status;
    zip_stat_init(&status);
    if (zip_stat_index(archive, static_cast<zip_uint64_t>(i), ZIP_FL_ENC_RAW, &status) != 0) break;
    entries.push_back(
        {status.name, static_cast<uint16_t>(status.comp_method), status.size, status.comp_size});
  }
  zip_discard(archive);
  return entries;
}

std::size_t LocalHeaderOffset(const std::string& archive, const std::string& name) {
  static const std::string kMagic("PK\3\4", 4);
  for (std::size_t at = archive.find(kMagic); at != std::string::npos;
       at = archive.find(kMagic, at + 1)) {
    if (at + 30 > archive.size()) break;
    const std::size_t nameLength = Little16(archive, at + 26);
    if (nameLength == name.size() && archive.compare(at + 30, nameLength, name) == 0) return at;
  }
  return std::string::npos;
}

std::size_t LocalDataOffset(const std::string& archive, const std::string& name) {
  const std::size_t at = LocalHeaderOffset(archive, name);
  if (at == std::string::npos) return at;
  return at + 30 + Little16(archive, at + 26) + Little16(archive, at + 28);
}

std::size_t CentralHeaderOffset(const std::string& archive, const std::string& name) {
  static const std::string kMagic("PK\1\2", 4);
  for (std::size_t at = archive.find(kMagic); at != std::string::npos;
       at = archive.find(kMagic, at + 1)) {
    if (at + 46 > archive.size()) break;
    const std::size_t nameLength = Little16(archive, at + 28);
    if (nameLength == name.size() && archive.compare(at + 46, nameLength, name) == 0) return at;
  }
  return std::string::npos;
}

bool CanWriteBzip2() { return zip_compression_method_supported(ZIP_CM_BZIP2, 1) != 0; }

std::size_t CentralDirectoryOffset(const std::string& archive) {
  return archive.find(std::string("PK\1\2", 4));
}

std::size_t EndRecordOffset(const std::string& archive) {
  return archive.rfind(std::string("PK\5\6", 4));
}

std::string PseudoRandomBytes(std::size_t length, uint32_t seed, unsigned alphabet) {
  std::string bytes(length, '\0');
  uint32_t state = seed == 0 ? 0x9E3779B9u : seed;
  for (char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    byte = static_cast<char>((state >> 8) % alphabet);
  }
  return bytes;
}

std::string CanonicalPath(const std::string& path) {
  std::error_code ignored;
  const std::filesystem::path canonical = std::filesystem::canonical(path, ignored);
  return canonical.empty() ? path : canonical.string();
}

int MappingsOf(const std::string& path) {
  const std::string wanted = CanonicalPath(path);
  std::ifstream maps("/proc/self/maps");
  int count = 0;
  for (std::string line; std::getline(maps, line);) {
    // "address perms offset dev inode      pathname": the name starts at the first '/'.
    const std::size_t slash = line.find('/');
    if (slash == std::string::npos) continue;
    std::string name = line.substr(slash);
    const std::string deleted = " (deleted)";
    if (name.size() > deleted.size() &&
        name.compare(name.size() - deleted.size(), deleted.size(), deleted) == 0) {
      name.resize(name.size() - deleted.size());
    }
    if (name == wanted) ++count;
  }
  return count;
}

int DescriptorsOn(const std::string& path) {
  const std::string wanted = CanonicalPath(path);
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    char target[PATH_MAX + 1];
    const ssize_t length = ::readlink(entry.path().c_str(), target, PATH_MAX);
    if (length > 0 && std::string(target, static_cast<std::size_t>(length)) == wanted) ++count;
  }
  return count;
}

int OpenDescriptorCount() {
  int count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    (void)entry;
    ++count;
  }
  return count;
}

}  // namespace velfs::testing
