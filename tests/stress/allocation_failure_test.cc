// Out of memory at every allocation of a fixed sequence of ordinary calls, one run per
// allocation: the n-th allocation fails alone (OnlyTheNthAllocationFails) or with every later
// one (EveryAllocationFromTheNthOnFails). Every run must end normally, every call must answer
// either what it answers when nothing fails or its failure value (0, false, null), and the
// database must pass "PRAGMA integrity_check;" afterwards.
//
// This program replaces malloc, calloc and realloc (operator new reaches them through
// libstdc++), so it is built only without sanitizers, whose allocators it would bypass. Each
// run is a child process: a crash is counted, not suffered. The parent process never calls the
// library or SQLite, so that every child starts from a process in which neither has done any
// work yet, and their first-use allocations fail in turn too.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <zip.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <set>
#include <string>

#include "velfs.h"

extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* block, size_t size);

namespace {

// Allocations are counted only while `armed`; the failAt-th fails, and with failLater every
// later one too. Each child process has its own copy.
struct AllocationPlan {
  bool armed = false;
  bool failLater = false;
  long count = 0;
  long failAt = 0;  // 0: none fails
} plan;

bool AllocationFails() {
  if (!plan.armed) return false;
  const long n = ++plan.count;
  const bool fails = n == plan.failAt || (plan.failLater && plan.failAt > 0 && n > plan.failAt);
  if (fails) errno = ENOMEM;
  return fails;
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

constexpr int kMaxAnswers = 128;

// What the calls answered when nothing failed, and what the latest run saw; in memory shared
// with the child processes.
struct SharedRecord {
  long allocations = 0;
  int64_t normal[kMaxAnswers] = {};
  bool diverged = false;             // some call answered other than when nothing failed
  const char* wrongCall = nullptr;   // the first call that answered neither result
  int64_t wrongAnswer = 0;
};
SharedRecord* record;

// Passes one call's answer through: the reference run keeps it, a failing run checks it.
class Answers {
 public:
  explicit Answers(bool reference) : reference_(reference) {}
  int64_t operator()(const char* call, int64_t answer, int64_t failure = 0) {
    const int i = next_++;
    if (i >= kMaxAnswers) std::abort();
    if (reference_) {
      record->normal[i] = answer;
      if (answer <= 0 && record->wrongCall == nullptr) {  // every call succeeds when nothing fails
        record->wrongCall = call;
        record->wrongAnswer = answer;
      }
    } else if (answer != record->normal[i]) {
      record->diverged = true;
      if (answer != failure && record->wrongCall == nullptr) {
        record->wrongCall = call;
        record->wrongAnswer = answer;
      }
    }
    return answer;
  }
  // 1 for `expected`, 0 for nothing at all, -1 for any other bytes (a partial or wrong read).
  int64_t Text(const char* call, const std::string& got, const std::string& expected) {
    return (*this)(call, got == expected ? 1 : got.empty() ? 0 : -1);
  }

 private:
  bool reference_;
  int next_ = 0;
};

std::string ReadAndClose(FileHandle* file) {
  std::string bytes;
  char buffer[256];
  uint64_t count;
  while ((count = velfsRead(file, buffer, sizeof buffer)) > 0) bytes.append(buffer, count);
  velfsCloseFile(file);
  return bytes;
}

// Lists and closes `listing`: 1 when every name it gave is one of `names`, -1 when one is not,
// 0 without a listing. Failing allocations may end a listing early or lose a name, no more.
void List(Answers& answer, const char* call, EnumHandle* listing,
          const std::set<std::string>& names) {
  int64_t result = listing == nullptr ? 0 : 1;
  while (velfsMoveNext(listing)) {
    char* name = nullptr;
    if (velfsGetName(listing, &name) && names.count(name) == 0) result = -1;
    free(name);
  }
  velfsCloseEnum(listing);
  answer(call, result);
}

// The sequence: a database (transaction, write, copy, rename, read, list), an archive (read,
// list), a directory (write, read, list), three mounts with stubs, and every handle closed.
// The database already holds docs/b.txt, so the copy that must not replace it answers false.
void RunSequence(const std::string& dir, Answers& answer) {
  const std::string db = dir + "/store.db", zip = dir + "/pack.zip", tree = dir + "/tree";
  DirHandle* store = velfsOpenDir(db.c_str());
  answer("open database", store != nullptr);
  answer("begin transaction", velfsBeginTrans(store));
  FileHandle* file = velfsCreateFileIndir(store, "docs/a.txt", 1);
  answer("create database file", file != nullptr);
  answer("write database file", velfsWrite(file, "alpha", 5));
  velfsCloseFile(file);
  answer("commit transaction", velfsCommitTrans(store));
  // Refusing to replace docs/b.txt is both the normal answer and the failure value.
  answer("copy onto existing file",
         velfsCopyFile(store, "docs/a.txt", "docs/b.txt", true) ? -1 : 1, 1);
  answer("rename file", velfsRenameFile(store, "docs/b.txt", "docs/c.txt"));
  bool exists = false;
  answer("test renamed file", velfsIsFileExist(store, "docs/c.txt", &exists) && exists);
  answer.Text("read from full path", ReadAndClose(velfsCreateFile((db + ":docs/a.txt").c_str(), 0)),
              "alpha");
  List(answer, "list database", velfsCreateEnumIndir(store, "docs/"), {"a.txt", "b.txt", "c.txt"});
  velfsCloseDir(store);

  DirHandle* pack = velfsOpenDir(zip.c_str());
  answer("open archive", pack != nullptr);
  answer.Text("read archive member", ReadAndClose(velfsCreateFileIndir(pack, "docs/z.txt", 0)),
              "zipped zipped zipped");
  List(answer, "list archive", velfsCreateEnumIndir(pack, ""), {"docs/", "top.txt"});
  velfsCloseDir(pack);

  DirHandle* root = velfsOpenDir(tree.c_str());
  answer("open directory", root != nullptr);
  file = velfsCreateFileIndir(root, "sub/n.txt", 1);
  answer("create host file", file != nullptr);
  answer("write host file", velfsWrite(file, "native", 6));
  velfsCloseFile(file);
  answer.Text("read host file", ReadAndClose(velfsCreateFileIndir(root, "sub/n.txt", 0)), "native");
  List(answer, "list directory", velfsCreateEnumIndir(root, "sub/"), {"n.txt"});
  velfsCloseDir(root);

  velFSMountPath("app:", tree.c_str());
  velFSMountPath("db:", db.c_str());
  velFSMountPath("zip:", zip.c_str());
  FileStub* stub = velFSCreateStub("db:docs/s.txt", 1);
  answer("create stub for writing", stub != nullptr);
  answer("write through stub", stub == nullptr ? 0 : stub->write(stub->file, "stub", 4));
  velFSDeleteStub(stub);
  for (const char* path : {"sub/n.txt", "db:docs/s.txt", "zip:top.txt"}) {
    stub = velFSCreateStub(path, 0);
    std::string bytes(16, '\0');
    bytes.resize(stub == nullptr ? 0 : stub->read(stub->file, bytes.data(), bytes.size()));
    answer.Text(path, bytes, path[0] == 's' ? "native" : path[0] == 'd' ? "stub" : "top");
    velFSDeleteStub(stub);
  }
  answer("map virtual path", velFSVelToSyspath("zip:docs/z.txt", nullptr, 0));
  for (const char* name : {"app:", "db:", "zip:"}) velFSUnmountPath(name);
  answer("create host directory", velFSCreateDirectory((tree + "/made").c_str()));
}

constexpr int kExceptionEscaped = 3;

// Runs `work` in a child process, its error output discarded, and answers its wait status:
// exit status kExceptionEscaped when an exception left it (a C host would be ended by
// std::terminate). A run that has not ended after a minute is stopped with SIGALRM.
int InChildProcess(const std::function<int()>& work) {
  const pid_t child = fork();
  if (child == 0) {
    dup2(open("/dev/null", O_WRONLY), STDERR_FILENO);
    alarm(60);
    int status = kExceptionEscaped;
    try {
      status = work();
    } catch (...) {
    }
    _exit(status);
  }
  int status = -1;
  waitpid(child, &status, 0);
  return status;
}

int IntegrityCheck(const std::string& db) {
  sqlite3* connection = nullptr;
  sqlite3_stmt* check = nullptr;
  const bool ok = sqlite3_open_v2(db.c_str(), &connection, SQLITE_OPEN_READONLY, nullptr) == 0 &&
                  sqlite3_prepare_v2(connection, "PRAGMA integrity_check;", -1, &check, nullptr) == 0 &&
                  sqlite3_step(check) == SQLITE_ROW &&
                  std::string(reinterpret_cast<const char*>(sqlite3_column_text(check, 0))) == "ok";
  sqlite3_finalize(check);
  sqlite3_close(connection);
  return ok ? 0 : 1;
}

// The starting state of every run: a database holding docs/b.txt, an archive of two members
// (written with libzip) and an empty host directory.
class AllocationFailure : public ::testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    // The runs need no durability: a memory file system keeps thousands of commits cheap.
    const std::filesystem::path base =
        std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path();
    scratch_ = base / ("velfs-allocation-" + std::to_string(getpid()) + (GetParam() ? "b" : "a"));
    std::filesystem::remove_all(scratch_);
    std::filesystem::create_directories(scratch_ / "template" / "tree");
    WriteArchive((scratch_ / "template" / "pack.zip").string());
    ASSERT_EQ(InChildProcess([&] {
                sqlite3* db = nullptr;
                const std::string path = (scratch_ / "template" / "store.db").string();
                return sqlite3_open(path.c_str(), &db) == 0 &&
                               sqlite3_exec(db,
                                            "create table FileStorage (FileName text, Path text, "
                                            "Content blob, Info blob, primary key(FileName, Path));"
                                            "insert into FileStorage values ('b.txt', 'docs/', "
                                            "'bravo', NULL);",
                                            nullptr, nullptr, nullptr) == 0 &&
                               sqlite3_close(db) == 0
                           ? 0
                           : 1;
              }),
              0);
    record = static_cast<SharedRecord*>(mmap(nullptr, sizeof(SharedRecord), PROT_READ | PROT_WRITE,
                                             MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    ASSERT_NE(record, MAP_FAILED);
    *record = SharedRecord();
  }
  static void WriteArchive(const std::string& path) {
    int error = 0;
    zip_t* archive = zip_open(path.c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    ASSERT_NE(archive, nullptr);
    for (const char* name : {"docs/z.txt", "top.txt"}) {
      const char* text = name[0] == 'd' ? "zipped zipped zipped" : "top";
      zip_source_t* source = zip_source_buffer(archive, text, strlen(text), 0);
      ASSERT_GE(zip_file_add(archive, name, source, ZIP_FL_ENC_UTF_8), 0);
    }
    ASSERT_EQ(zip_close(archive), 0);
  }
  void TearDown() override {
    munmap(record, sizeof(SharedRecord));
    std::filesystem::remove_all(scratch_);
  }

  // A fresh copy of the starting state, the sequence run over it in a child process with the
  // failAt-th allocation failing (none for 0), then the database checked in another child.
  std::string Run(long failAt, bool reference) {
    const std::filesystem::path run = scratch_ / "run";
    std::filesystem::remove_all(run);
    std::filesystem::copy(scratch_ / "template", run, std::filesystem::copy_options::recursive);
    record->wrongCall = nullptr;
    const int status = InChildProcess([&] {
      Answers answers(reference);
      plan = {true, GetParam(), 0, failAt};
      RunSequence(run.string(), answers);
      plan.armed = false;
      if (reference) record->allocations = plan.count;
      return record->wrongCall == nullptr ? 0 : 1;
    });
    if (WIFSIGNALED(status)) return std::string("ended by signal ") + strsignal(WTERMSIG(status));
    if (WIFEXITED(status) && WEXITSTATUS(status) == 1) {
      return std::string("'") + record->wrongCall + "' answered " +
             std::to_string(record->wrongAnswer);
    }
    if (WIFEXITED(status) && WEXITSTATUS(status) == kExceptionEscaped) {
      return "an exception left an exported function";
    }
    if (status != 0) return "exit status " + std::to_string(status);
    if (InChildProcess([&] { return IntegrityCheck((run / "store.db").string()); }) != 0) {
      return "the database fails its integrity check";
    }
    return "";
  }

  std::filesystem::path scratch_;
};

TEST_P(AllocationFailure, EveryRunAnswersFailureValuesAndKeepsTheDatabaseIntact) {
  ASSERT_EQ(Run(0, true), "");
  const long allocations = record->allocations;
  ASSERT_GT(allocations, 0);
  std::map<std::string, long> outcomes;  // failed runs by what went wrong
  std::map<std::string, long> firstAt;
  long diverged = 0;
  for (long n = 1; n <= allocations; ++n) {
    record->diverged = false;
    const std::string outcome = Run(n, false);
    diverged += record->diverged;
    if (outcome.empty()) continue;
    if (outcomes[outcome]++ == 0) firstAt[outcome] = n;
  }
  long failed = 0;
  for (const auto& [outcome, runs] : outcomes) {
    failed += runs;
    ADD_FAILURE() << runs << " runs: " << outcome << " (first when allocation " << firstAt[outcome]
                  << " fails)";
  }
  std::cout << "sequence of " << allocations << " allocations: " << failed << " of "
            << allocations << " runs failed; " << diverged
            << " runs answered a failure value somewhere\n";
  EXPECT_GT(diverged, 0) << "no failed allocation reached a call's answer";
}

INSTANTIATE_TEST_SUITE_P(, AllocationFailure, ::testing::Values(false, true),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return info.param ? "EveryAllocationFromTheNthOnFails"
                                             : "OnlyTheNthAllocationFails";
                         });

}  // namespace
