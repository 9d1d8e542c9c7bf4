// Mount-stub workloads: the files of the read workloads opened through the host I/O layer
// (velIOOpen of "<mount>:<name>", the stub's read, velIOClose) with each kind of root mounted:
// the database files.db, the host directory files/ and the archive members.zip. Their baselines
// are the same files through velfsCreateFileIndir: db_read_10k/velfs, native_read_10k/velfs and
// zip_members_10k/velfs, in the same order.
#include <benchmark/benchmark.h>

#include <string>

#include "manifest.h"
#include "read_check.h"
#include "velIOStub.h"
#include "velfs.h"

namespace velfs::bench {
namespace {

constexpr std::size_t kBatch = 256;

void ReadThroughStubs(benchmark::State& state, const char* set, const char* mountName,
                      const char* root) {
  const Manifest manifest = Manifest::Load(set);
  if (!RequireData(state, manifest)) return;
  if (velIORegistrations() == 0) return state.SkipWithError("libvelfs registered no callbacks");
  velFSMountPath(mountName, DataPath(root).c_str());
  std::string path;
  ReadCheck check(manifest, ShuffledOrder(manifest.size()), kBatch);
  for (auto _ : state) {
    const bool ok = check.Pass(state,
                               [&path, mountName](const ManifestEntry& entry, unsigned char* slot,
                                                  std::size_t capacity) -> int64_t {
                                 path.assign(mountName).append(entry.name);
                                 FileStub* stub = velIOOpen(path.c_str(), 0);
                                 if (stub == nullptr) return -1;
                                 const uint64_t read = stub->read(stub->file, slot, capacity);
                                 velIOClose(stub);
                                 return static_cast<int64_t>(read);
                               });
    if (!ok) break;
  }
  velFSUnmountPath(mountName);
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(check.files()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(check.bytes()));
}

}  // namespace

BENCHMARK_CAPTURE(ReadThroughStubs, db, "files", "benchdb:", "files.db")
    ->Name("stub_db_10k/velfs")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ReadThroughStubs, native, "files", "benchnative:", "files")
    ->Name("stub_native_10k/velfs")
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(ReadThroughStubs, zip, "members", "benchzip:", "members.zip")
    ->Name("stub_zip_10k/velfs")
    ->Unit(benchmark::kMillisecond);

}  // namespace velfs::bench
