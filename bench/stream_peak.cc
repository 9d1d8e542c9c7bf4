// velfs_stream_peak: the peak resident memory of streaming a 1 GiB archive member, through velFS
// and through the libraries a host would otherwise use, each in a child process of its own.
//
//   velfs_stream_peak                      every reader on deflated.bin and stored.bin of
//                                          $VELFS_BENCH_DATA/big.zip; one JSON object per line
//   velfs_stream_peak READER ZIP MEMBER SIZE CRC
//                                          one child: streams MEMBER with 64 KiB reads into one
//                                          reused buffer and prints "bytes seconds peak-anon-KiB"
//
// The parent reads each child's peak resident set (ru_maxrss, through wait4) and the child's own
// samples of its anonymous memory (resident minus file-backed pages, /proc/self/statm, every
// 16 MiB). A child whose bytes do not match the manifest's size and CRC-32 fails the run.
#include <physfs.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zip.h>
#include <zlib.h>
#include <zzip/zzip.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "manifest.h"
#include "velfs.h"

namespace velfs::bench {
namespace {

constexpr std::size_t kChunk = 64 * 1024;
constexpr uint64_t kSampleEvery = 16u << 20;
const char* const kReaders[] = {"velfs", "zziplib", "physfs", "libzip"};
const char* const kMembers[] = {"deflated.bin", "stored.bin"};

// Anonymous resident memory in KiB: resident pages minus file-backed (shared) pages.
long AnonymousKib() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0, shared = 0;
  statm >> size >> resident >> shared;
  return (resident - shared) * (sysconf(_SC_PAGESIZE) / 1024);
}

// Streams through read(buffer, count) (-1 on failure, 0 at the end) and prints the result line.
int Stream(const std::function<int64_t(unsigned char*, std::size_t)>& read, uint64_t size,
           uint32_t crc) {
  std::vector<unsigned char> buffer(kChunk);
  uLong sum = crc32(0L, Z_NULL, 0);
  uint64_t total = 0, nextSample = 0;
  long peakAnon = AnonymousKib();
  const auto start = std::chrono::steady_clock::now();
  for (;;) {
    const int64_t got = read(buffer.data(), buffer.size());
    if (got < 0) return 1;
    if (got == 0) break;
    sum = crc32(sum, buffer.data(), static_cast<uInt>(got));
    total += static_cast<uint64_t>(got);
    if (total >= nextSample) {
      peakAnon = std::max(peakAnon, AnonymousKib());
      nextSample += kSampleEvery;
    }
  }
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  peakAnon = std::max(peakAnon, AnonymousKib());
  if (total != size || static_cast<uint32_t>(sum) != crc) return 2;
  std::printf("%llu %.6f %ld\n", static_cast<unsigned long long>(total), seconds, peakAnon);
  return 0;
}

int Child(const std::string& reader, const std::string& zipPath, const std::string& member,
          uint64_t size, uint32_t crc) {
  if (reader == "velfs") {
    DirHandle* dir = velfsOpenDir(zipPath.c_str());
    FileHandle* file = dir == nullptr ? nullptr : velfsCreateFileIndir(dir, member.c_str(), 0);
    if (file == nullptr) return 3;
    const int result = Stream(
        [file](unsigned char* buffer, std::size_t count) {
          return static_cast<int64_t>(velfsRead(file, buffer, count));
        },
        size, crc);
    velfsCloseFile(file);
    velfsCloseDir(dir);
    return result;
  }
  if (reader == "zziplib") {
    ZZIP_DIR* dir = zzip_dir_open(zipPath.c_str(), nullptr);
    ZZIP_FILE* file = dir == nullptr ? nullptr : zzip_file_open(dir, member.c_str(), 0);
    if (file == nullptr) return 3;
    const int result = Stream(
        [file](unsigned char* buffer, std::size_t count) {
          return static_cast<int64_t>(zzip_file_read(file, buffer, count));
        },
        size, crc);
    zzip_file_close(file);
    zzip_dir_close(dir);
    return result;
  }
  if (reader == "physfs") {
    if (PHYSFS_init(nullptr) == 0 || PHYSFS_mount(zipPath.c_str(), nullptr, 1) == 0) return 3;
    PHYSFS_File* file = PHYSFS_openRead(member.c_str());
    if (file == nullptr) return 3;
    const int result = Stream(
        [file](unsigned char* buffer, std::size_t count) {
          return static_cast<int64_t>(PHYSFS_readBytes(file, buffer, count));
        },
        size, crc);
    PHYSFS_close(file);
    PHYSFS_deinit();
    return result;
  }
  if (reader == "libzip") {
    int error = 0;
    zip_t* archive = zip_open(zipPath.c_str(), ZIP_RDONLY, &error);
    zip_file_t* file = archive == nullptr ? nullptr : zip_fopen(archive, member.c_str(), 0);
    if (file == nullptr) return 3;
    const int result = Stream(
        [file](unsigned char* buffer, std::size_t count) {
          return static_cast<int64_t>(zip_fread(file, buffer, count));
        },
        size, crc);
    zip_fclose(file);
    zip_discard(archive);
    return result;
  }
  return 4;
}

// Runs one child and prints its JSON line; false when it failed.
bool RunChild(const char* self, const char* reader, const std::string& zipPath,
              const ManifestEntry& entry) {
  int output[2];
  if (pipe(output) != 0) return false;
  const std::string size = std::to_string(entry.size);
  char crc[16];
  std::snprintf(crc, sizeof crc, "%08x", entry.crc);
  const pid_t child = fork();
  if (child == 0) {
    dup2(output[1], STDOUT_FILENO);
    close(output[0]);
    close(output[1]);
    execl(self, self, reader, zipPath.c_str(), entry.name.c_str(), size.c_str(), crc,
          static_cast<char*>(nullptr));
    _exit(127);
  }
  close(output[1]);
  std::string line;
  char text[256];
  ssize_t got;
  while ((got = read(output[0], text, sizeof text)) > 0)
    line.append(text, static_cast<std::size_t>(got));
  close(output[0]);
  int status = 0;
  struct rusage usage {};
  if (child < 0 || wait4(child, &status, 0, &usage) != child) return false;
  unsigned long long bytes = 0;
  double seconds = 0;
  long peakAnon = 0;
  const bool ok = WIFEXITED(status) && WEXITSTATUS(status) == 0 &&
                  std::sscanf(line.c_str(), "%llu %lf %ld", &bytes, &seconds, &peakAnon) == 3;
  std::printf(
      "{\"member\": \"%s\", \"reader\": \"%s\", \"verified\": %s, \"peak_rss_kib\": %ld, "
      "\"peak_anon_kib\": %ld, \"seconds\": %.6f, \"exit\": %d}\n",
      entry.name.c_str(), reader, ok ? "true" : "false", usage.ru_maxrss, peakAnon, seconds,
      WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  std::fflush(stdout);
  return ok;
}

}  // namespace
}  // namespace velfs::bench

int main(int argc, char** argv) {
  using namespace velfs::bench;
  if (argc == 6) {
    return Child(argv[1], argv[2], argv[3], std::strtoull(argv[4], nullptr, 10),
                 static_cast<uint32_t>(std::strtoul(argv[5], nullptr, 16)));
  }
  const Manifest manifest = Manifest::Load("big");
  if (argc != 1 || manifest.empty()) {
    std::fprintf(stderr, "usage: VELFS_BENCH_DATA=DIR %s   (DIR/big.zip and DIR/big.manifest)\n",
                 argv[0]);
    return 2;
  }
  const std::string zipPath = DataPath("big.zip");
  bool ok = true;
  for (const char* member : kMembers) {
    const ManifestEntry* entry = manifest.Find(member);
    for (const char* reader : kReaders) {
      ok = entry != nullptr && RunChild("/proc/self/exe", reader, zipPath, *entry) && ok;
    }
  }
  return ok ? 0 : 1;
}
