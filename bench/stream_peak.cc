// velfs_stream_peak READER MEMBER: streams one 1 GiB member of $VELFS_BENCH_DATA/big.zip with
// 64 KiB reads into one reused buffer, through velFS, zziplib or libzip (READER "velfs",
// "zziplib" or "libzip"), and prints one JSON line: the process's peak resident set
// (getrusage's ru_maxrss), the bytes and seconds of the pass, and whether the bytes matched the
// manifest's size and CRC-32. scripts/bench.sh runs one process per reader and
// member, so that no reader inherits another's memory. Exit status 0 when the bytes matched.
#include <sys/resource.h>
#include <zip.h>
#include <zlib.h>
#include <zzip/zzip.h>

#include <chrono>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "data_set.h"
#include "velfs.h"

namespace {

constexpr std::size_t kChunk = 64 * 1024;

struct Stream {
  uint64_t bytes = 0;
  uint32_t crc = 0;
  double seconds = 0;
};

// Reads through read(buffer, count) (-1 on failure, 0 at the end) to the end; false on failure.
bool Drain(const std::function<int64_t(unsigned char*, std::size_t)>& read, Stream& stream) {
  std::vector<unsigned char> buffer(kChunk);
  uLong crc = crc32(0L, Z_NULL, 0);
  const auto start = std::chrono::steady_clock::now();
  for (int64_t got; (got = read(buffer.data(), buffer.size())) != 0;) {
    if (got < 0) return false;
    crc = crc32(crc, buffer.data(), static_cast<uInt>(got));
    stream.bytes += static_cast<uint64_t>(got);
  }
  stream.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  stream.crc = static_cast<uint32_t>(crc);
  return true;
}

bool StreamMember(const std::string& reader, const std::string& zip, const std::string& member,
                  Stream& stream) {
  if (reader == "velfs") {
    DirHandle* dir = velfsOpenDir(zip.c_str());
    FileHandle* file = dir == nullptr ? nullptr : velfsCreateFileIndir(dir, member.c_str(), 0);
    const bool ok = file != nullptr && Drain([file](unsigned char* buffer, std::size_t count) {
      return static_cast<int64_t>(velfsRead(file, buffer, count));
    }, stream);
    velfsCloseFile(file);
    velfsCloseDir(dir);
    return ok;
  }
  if (reader == "zziplib") {
    ZZIP_DIR* dir = zzip_dir_open(zip.c_str(), nullptr);
    ZZIP_FILE* file = dir == nullptr ? nullptr : zzip_file_open(dir, member.c_str(), 0);
    const bool ok = file != nullptr && Drain([file](unsigned char* buffer, std::size_t count) {
      return static_cast<int64_t>(zzip_file_read(file, buffer, count));
    }, stream);
    if (file != nullptr) zzip_file_close(file);
    if (dir != nullptr) zzip_dir_close(dir);
    return ok;
  }
  if (reader == "libzip") {
    int error = 0;
    zip_t* archive = zip_open(zip.c_str(), ZIP_RDONLY, &error);
    zip_file_t* file = archive == nullptr ? nullptr : zip_fopen(archive, member.c_str(), 0);
    const bool ok = file != nullptr && Drain([file](unsigned char* buffer, std::size_t count) {
      return static_cast<int64_t>(zip_fread(file, buffer, count));
    }, stream);
    if (file != nullptr) zip_fclose(file);
    if (archive != nullptr) zip_discard(archive);
    return ok;
  }
  return false;
}

}  // namespace

int main(int argc, char** argv) {
  using namespace velfs::bench;
  const std::vector<ManifestEntry> manifest = LoadManifest("big");
  if (argc != 3 || manifest.empty()) {
    std::fprintf(stderr, "usage: VELFS_BENCH_DATA=DIR %s velfs|zziplib|libzip MEMBER\n", argv[0]);
    return 2;
  }
  const std::string reader = argv[1], member = argv[2];
  Stream stream;
  bool verified = StreamMember(reader, DataPath("big.zip"), member, stream);
  bool listed = false;
  for (const ManifestEntry& entry : manifest) {
    if (entry.name != member) continue;
    listed = true;
    verified = verified && stream.bytes == entry.size && stream.crc == entry.crc;
  }
  verified = verified && listed;
  struct rusage usage {};
  getrusage(RUSAGE_SELF, &usage);
  std::printf(
      "{\"member\": \"%s\", \"reader\": \"%s\", \"verified\": %s, \"peak_rss_kib\": %ld, "
      "\"bytes\": %llu, \"seconds\": %.6f}\n",
      member.c_str(), reader.c_str(), verified ? "true" : "false", usage.ru_maxrss,
      static_cast<unsigned long long>(stream.bytes), stream.seconds);
  return verified ? 0 : 1;
}
