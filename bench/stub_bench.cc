// Mount stubs: the files of the read workloads opened through the host I/O layer (velIOOpen of
// "<mount>:<name>", the stub's read, velIOClose) with each kind of root mounted: the database
// files.db, the host directory files/ and the archive members.zip. Their baselines are the same
// files through velfsCreateFileIndir, in the same order: db_read_10k/velfs,
// native_read_10k/velfs and zip_members_10k/velfs.
#include <benchmark/benchmark.h>

#include <string>

#include "data_set.h"
#include "velIOStub.h"
#include "velfs.h"

namespace velfs::bench {
namespace {

void ReadThroughStubs(benchmark::State& state, const char* set, const char* mountName,
                      const char* root) {
  const std::vector<ManifestEntry> manifest = LoadManifest(set);
  if (!RequireData(state, manifest)) return;
  if (velIORegistrations() == 0) return state.SkipWithError("libvelfs registered no callbacks");
  velFSMountPath(mountName, DataPath(root).c_str());
  std::string path;
  RunCheckedReads(state, manifest, ShuffledOrder(manifest.size()), kCheckBatch,
                  [&path, mountName](const ManifestEntry& entry, unsigned char* slot,
                                     std::size_t capacity) -> int64_t {
                    path.assign(mountName).append(entry.name);
                    FileStub* stub = velIOOpen(path.c_str(), 0);
                    if (stub == nullptr) return -1;
                    const uint64_t read = stub->read(stub->file, slot, capacity);
                    velIOClose(stub);
                    return static_cast<int64_t>(read);
                  });
  velFSUnmountPath(mountName);
}

}  // namespace

BENCHMARK_CAPTURE(ReadThroughStubs, db, "files", "benchdb:", "files.db")
    ->Name("stub_db_10k/velfs");
BENCHMARK_CAPTURE(ReadThroughStubs, native, "files", "benchnative:", "files")
    ->Name("stub_native_10k/velfs");
BENCHMARK_CAPTURE(ReadThroughStubs, zip, "members", "benchzip:", "members.zip")
    ->Name("stub_zip_10k/velfs");

}  // namespace velfs::bench
