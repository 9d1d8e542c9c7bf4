// Manifest: reading "<set>.manifest" from the data directory.
#include "manifest.h"

#include <zlib.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace velfs::bench {

std::string DataPath(std::string_view relative) {
  const char* root = std::getenv("VELFS_BENCH_DATA");
  if (root == nullptr || *root == '\0') return {};
  std::string path(root);
  path += '/';
  path += relative;
  return path;
}

Manifest Manifest::Load(std::string_view set) {
  Manifest manifest;
  const std::string path = DataPath(std::string(set) + ".manifest");
  if (path.empty()) return manifest;
  std::ifstream in(path);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    ManifestEntry entry;
    std::string crc;
    if (!std::getline(fields, entry.name, '\t') || !(fields >> entry.size >> crc)) return {};
    entry.crc = static_cast<uint32_t>(std::stoul(crc, nullptr, 16));
    manifest.entries_.push_back(std::move(entry));
  }
  return manifest;
}

const ManifestEntry* Manifest::Find(std::string_view name) const {
  for (const ManifestEntry& entry : entries_) {
    if (entry.name == name) return &entry;
  }
  return nullptr;
}

uint32_t Crc32(const void* bytes, std::size_t size) {
  uLong crc = crc32(0L, Z_NULL, 0);
  const auto* next = static_cast<const Bytef*>(bytes);
  while (size > 0) {  // zlib's crc32 takes a 32-bit length
    const auto chunk = static_cast<uInt>(size < (1u << 30) ? size : (1u << 30));
    crc = crc32(crc, next, chunk);
    next += chunk;
    size -= chunk;
  }
  return static_cast<uint32_t>(crc);
}

}  // namespace velfs::bench
