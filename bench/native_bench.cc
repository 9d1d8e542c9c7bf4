// Native-root workload: the 10,000 host files of 10,240 bytes (files/) read by name, one open
// each, through velFS and through PhysicsFS with the directory mounted. The fopen/fread
// baseline of the same files is host_read_10k/fread (database_bench.cc).
#include <benchmark/benchmark.h>
#include <physfs.h>

#include <string>

#include "manifest.h"
#include "physfs_session.h"
#include "read_check.h"
#include "velfs.h"

namespace velfs::bench {
namespace {

constexpr std::size_t kBatch = 256;

void BM_NativeRead_Velfs(benchmark::State& state) { ReadFilesThroughVelfs(state, DataPath("files")); }

void BM_NativeRead_Physfs(benchmark::State& state) {
  const Manifest manifest = Manifest::Load("files");
  if (!RequireData(state, manifest)) return;
  PhysfsSession physfs(DataPath("files"));
  if (!physfs.ok()) return state.SkipWithError(PhysfsSession::LastError().c_str());
  ReadCheck check(manifest, ShuffledOrder(manifest.size()), kBatch);
  for (auto _ : state) {
    const bool ok = check.Pass(
        state,
        [](const ManifestEntry& entry, unsigned char* slot, std::size_t capacity) -> int64_t {
          PHYSFS_File* file = PHYSFS_openRead(entry.name.c_str());
          if (file == nullptr) return -1;
          const PHYSFS_sint64 read = PHYSFS_readBytes(file, slot, capacity);
          PHYSFS_close(file);
          return read;
        });
    if (!ok) break;
  }
  state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(check.files()));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(check.bytes()));
}

}  // namespace

BENCHMARK(BM_NativeRead_Velfs)->Name("native_read_10k/velfs")->Unit(benchmark::kMillisecond);
BENCHMARK(BM_NativeRead_Physfs)->Name("native_read_10k/physfs")->Unit(benchmark::kMillisecond);

}  // namespace velfs::bench
