// Out of memory at every allocation of a fixed sequence of ordinary calls, one run per
// allocation n: allocation n fails alone, or with every later one. Every run must end normally,
// every call must answer what it answers when nothing fails or its failure value (0, false,
// null), and the database must pass "PRAGMA integrity_check;" afterwards.
//
// The program replaces malloc, calloc and realloc over glibc's own (libstdc++'s operator new
// calls malloc), so it is built only on glibc and without sanitizers. Each run is a child process,
// so that a crash is counted, not suffered; the parent never calls the library or SQLite, so that
// their first-use allocations fail in turn too.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <iostream>
#include <map>
#include <string>

#include "support.h"

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* block, size_t size);

namespace {

// Allocations are counted while `armed`; the failAt-th fails (none for 0), with failLater every
// later one too.
struct {
  bool armed, failLater;
  long count, failAt;
} plan;

bool AllocationFails() {
  if (!plan.armed) return false;
  const long n = ++plan.count;
  if (plan.failAt == 0 || n < plan.failAt || (n > plan.failAt && !plan.failLater)) return false;
  errno = ENOMEM;
  return true;
}

}  // namespace

extern "C" void* malloc(size_t size) { return AllocationFails() ? nullptr : __libc_malloc(size); }
extern "C" void* calloc(size_t count, size_t size) {
  return AllocationFails() ? nullptr : __libc_calloc(count, size);
}
extern "C" void* realloc(void* block, size_t size) {
  return AllocationFails() ? nullptr : __libc_realloc(block, size);
}

namespace {

// The answers of the run in which nothing fails, and what the latest run saw: in memory shared
// with the child processes.
struct Record {
  long allocations;
  int64_t normal[64];
  bool diverged;          // some call answered other than when nothing fails
  const char* wrongCall;  // the first call that answered neither
  int64_t wrongAnswer;
} * record;
bool referenceRun;
int answerIndex;

// Passes one answer through: the reference run keeps it (and must succeed), others check it.
int64_t Answer(const char* call, int64_t answer, int64_t failure = 0) {
  int64_t& normal = record->normal[answerIndex++];
  if (referenceRun) normal = answer;
  record->diverged |= answer != normal;
  if ((referenceRun ? answer <= 0 : answer != normal && answer != failure) && !record->wrongCall) {
    record->wrongCall = call;
    record->wrongAnswer = answer;
  }
  return answer;
}

// The sequence itself allocates nothing while the plan is armed: every counted allocation is
// one of the library's (or of the libraries it calls).

// 1 for exactly the `expected` bytes, 0 for none, -1 for others (a partial or wrong read).
int64_t Bytes(const char* got, uint64_t size, const char* expected) {
  return size == strlen(expected) && memcmp(got, expected, size) == 0 ? 1 : size == 0 ? 0 : -1;
}

int64_t ReadAndClose(FileHandle* file, const char* expected) {
  char bytes[64];
  const uint64_t size = velfsRead(file, bytes, sizeof bytes);
  velfsCloseFile(file);
  return Bytes(bytes, size, expected);
}

// 1 when every name of the listing is one of `names`, -1 when one is not, 0 without a listing:
// a failed allocation may end a listing early or lose a name, never make one up.
int64_t ListAndClose(EnumHandle* listing, std::initializer_list<const char*> names) {
  int64_t result = listing == nullptr ? 0 : 1;
  for (char* name = nullptr; velfsMoveNext(listing); free(name), name = nullptr) {
    if (!velfsGetName(listing, &name)) continue;
    if (std::none_of(names.begin(), names.end(), [&](const char* n) { return !strcmp(n, name); }))
      result = -1;
  }
  velfsCloseEnum(listing);
  return result;
}

// The paths of one run, made before allocations are counted.
struct RunPaths {
  std::string db, zip, tree, dbFile, madeDir;
};

// A database (transaction, write, copy, rename, read, list), an archive (read, list), a
// directory (write, read, list), three mounts with stubs, every handle closed. The database
// starts with docs/b.txt: the copy onto it is refused, whether allocations fail or not.
void RunSequence(const RunPaths& paths) {
  DirHandle* store = velfsOpenDir(paths.db.c_str());
  Answer("open database", store != nullptr);
  Answer("begin transaction", velfsBeginTrans(store));
  FileHandle* file = velfsCreateFileIndir(store, "docs/a.txt", 1);
  Answer("write database file", velfsWrite(file, "alpha", 5));
  velfsCloseFile(file);
  Answer("commit transaction", velfsCommitTrans(store));
  Answer("copy onto a file", velfsCopyFile(store, "docs/a.txt", "docs/b.txt", true) ? -1 : 1, 1);
  Answer("rename file", velfsRenameFile(store, "docs/b.txt", "docs/c.txt"));
  bool exists = false;
  Answer("test renamed file", velfsIsFileExist(store, "docs/c.txt", &exists) && exists);
  Answer("read by full path", ReadAndClose(velfsCreateFile(paths.dbFile.c_str(), 0), "alpha"));
  Answer("list database",
         ListAndClose(velfsCreateEnumIndir(store, "docs/"), {"a.txt", "b.txt", "c.txt"}));
  velfsCloseDir(store);

  DirHandle* pack = velfsOpenDir(paths.zip.c_str());
  Answer("read archive", ReadAndClose(velfsCreateFileIndir(pack, "docs/z.txt", 0), "zip"));
  Answer("list archive", ListAndClose(velfsCreateEnumIndir(pack, ""), {"docs/", "top.txt"}));
  velfsCloseDir(pack);

  DirHandle* root = velfsOpenDir(paths.tree.c_str());
  file = velfsCreateFileIndir(root, "sub/n.txt", 1);
  Answer("write host file", velfsWrite(file, "native", 6));
  velfsCloseFile(file);
  Answer("read host file", ReadAndClose(velfsCreateFileIndir(root, "sub/n.txt", 0), "native"));
  Answer("list directory", ListAndClose(velfsCreateEnumIndir(root, "sub/"), {"n.txt"}));
  velfsCloseDir(root);

  velFSMountPath("app:", paths.tree.c_str());
  velFSMountPath("db:", paths.db.c_str());
  velFSMountPath("zip:", paths.zip.c_str());
  FileStub* stub = velFSCreateStub("db:docs/s.txt", 1);
  Answer("write through stub", stub == nullptr ? 0 : stub->write(stub->file, "stub", 4));
  velFSDeleteStub(stub);
  for (const auto& [path, expected] :
       {std::pair("sub/n.txt", "native"), std::pair("db:docs/s.txt", "stub"),
        std::pair("zip:top.txt", "top")}) {
    stub = velFSCreateStub(path, 0);
    char bytes[16];
    const uint64_t size = stub == nullptr ? 0 : stub->read(stub->file, bytes, sizeof bytes);
    Answer(path, Bytes(bytes, size, expected));
    velFSDeleteStub(stub);
  }
  Answer("map virtual path", velFSVelToSyspath("zip:docs/z.txt", nullptr, 0));
  for (const char* name : {"app:", "db:", "zip:"}) velFSUnmountPath(name);
  Answer("create host directory", velFSCreateDirectory(paths.madeDir.c_str()));
}

// Runs `work` in a child process (error output discarded, stopped by SIGALRM after a minute)
// and answers its wait status; exit status 3 when an exception left it, where a C host would
// have been ended by std::terminate.
int InChildProcess(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    alarm(60);
    try {
      _exit(work());
    } catch (...) {
      _exit(3);
    }
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

// Runs `sql` on the database at `path` in a child process: true when it succeeds and its first
// answer, if any, is "ok".
bool Sql(const std::string& path, const char* sql) {
  return InChildProcess([&] {
           sqlite3* db = nullptr;
           bool ok = true;
           const auto firstAnswer = [](void* flag, int, char** values, char**) {
             *static_cast<bool*>(flag) &= values[0] != nullptr && strcmp(values[0], "ok") == 0;
             return 0;
           };
           return sqlite3_open(path.c_str(), &db) ||
                  sqlite3_exec(db, sql, firstAnswer, &ok, nullptr) || !ok;
         }) == 0;
}

class AllocationFailure : public ::testing::TestWithParam<bool> {
 protected:
  // The starting state: a database holding docs/b.txt, an archive of two members and an empty
  // directory, on a memory file system where there is one (the runs need no durability).
  void SetUp() override {
    const std::filesystem::path base = std::filesystem::is_directory("/dev/shm")
                                           ? "/dev/shm"
                                           : std::filesystem::temp_directory_path();
    scratch_ = base / ("velfs-allocation-" + std::to_string(getpid()));
    std::filesystem::remove_all(scratch_);
    std::filesystem::create_directories(scratch_ / "start" / "tree");
    // Stored members: when the inflate state of a deflated member cannot be allocated,
    // zziplib 0.13's zzip_file_open crashes in its own clean-up (zzip_file_close).
    velfs_test::WriteZip((scratch_ / "start" / "pack.zip").string(),
                         {{"docs/z.txt", "zip"}, {"top.txt", "top"}});
    ASSERT_TRUE(Sql((scratch_ / "start" / "store.db").string(),
                    "create table FileStorage (FileName text, Path text, Content blob, Info blob, "
                    "primary key(FileName, Path)); insert into FileStorage (FileName, Path, "
                    "Content) values ('b.txt', 'docs/', 'bravo');"));
    record = static_cast<Record*>(
        mmap(nullptr, sizeof(Record), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(record, MAP_FAILED);
    *record = {};
  }
  void TearDown() override {
    munmap(record, sizeof(Record));
    std::filesystem::remove_all(scratch_);
  }

  // One run over a fresh copy of the starting state, allocation failAt failing (none for 0):
  // empty when it passed, else what went wrong.
  std::string Run(long failAt) {
    const std::filesystem::path run = scratch_ / "run";
    std::filesystem::remove_all(run);
    std::filesystem::copy(scratch_ / "start", run, std::filesystem::copy_options::recursive);
    record->wrongCall = nullptr;
    referenceRun = failAt == 0;
    const std::string dir = run.string();
    const RunPaths paths = {dir + "/store.db", dir + "/pack.zip", dir + "/tree",
                            dir + "/store.db:docs/a.txt", dir + "/tree/made"};
    const int status = InChildProcess([&] {
      plan = {true, GetParam(), 0, failAt};
      RunSequence(paths);
      plan.armed = false;
      record->allocations = plan.count;
      return record->wrongCall == nullptr ? 0 : 1;
    });
    if (WIFSIGNALED(status)) return std::string("ended by ") + strsignal(WTERMSIG(status));
    if (WIFEXITED(status) && WEXITSTATUS(status) == 3)
      return "an exception left an exported function";
    if (status != 0)
      return record->wrongCall + (" answered " + std::to_string(record->wrongAnswer));
    if (!Sql((run / "store.db").string(), "PRAGMA integrity_check;")) return "database damaged";
    return "";
  }

  std::filesystem::path scratch_;
};

TEST_P(AllocationFailure, EveryRunAnswersFailureValuesAndKeepsTheDatabaseIntact) {
  ASSERT_EQ(Run(0), "");
  const long allocations = record->allocations;
  std::map<std::string, std::pair<long, long>> failures;  // what went wrong: runs, first n
  long diverged = 0, failed = 0;
  for (long n = 1; n <= allocations; ++n) {
    record->diverged = false;
    const std::string outcome = Run(n);
    diverged += record->diverged;
    if (!outcome.empty() && failures[outcome].first++ == 0) failures[outcome].second = n;
  }
  for (const auto& [outcome, runs] : failures) {
    failed += runs.first;
    ADD_FAILURE() << runs.first << " runs: " << outcome << " (first at allocation " << runs.second
                  << ")";
  }
  std::cout << allocations << " allocations, " << failed << " failed runs, " << diverged
            << " runs with a failure value\n";
  EXPECT_GT(diverged, 0) << "no failed allocation reached an answer";
}

INSTANTIATE_TEST_SUITE_P(Modes, AllocationFailure, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& mode) {
                           return mode.param ? "AllocationsFromTheNthOnFail" : "OnlyTheNthFails";
                         });

}  // namespace
