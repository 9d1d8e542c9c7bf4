// Many threads at once on every kind of root, through the exported functions only: opening,
// reading (every byte compared with what was written), writing, listing and closing. The threads
// keep the one rule of velfs.h, that a handle is used by one thread at a time, and nothing else:
// handles made through one shared root, and stubs of one mount, are used from every thread.
// Under ThreadSanitizer (-DVELFS_TSAN=ON) any unguarded state shared by the threads is reported;
// in every build the bytes and listings must come out right. Iteration counts are fixed.
#include <gtest/gtest.h>
#include <zip.h>

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "velfs.h"

namespace {

constexpr int kThreads = 8;
constexpr int kRounds = 6;
const std::vector<std::string> kFiles = {"top.txt", "docs/f0.txt", "docs/f1.txt", "docs/f2.txt",
                                         "docs/f3.txt"};
const std::vector<std::string> kDocsListing = {"f0.txt", "f1.txt", "f2.txt", "f3.txt"};

// Bytes determined by `name`: 1 to 6,000 of them, compressible but without a period, so that a
// read from the wrong file, the wrong root or the wrong position cannot match.
std::string ContentOf(const std::string& name) {
  uint32_t state = 2166136261u;
  for (const unsigned char c : name) state = (state ^ c) * 16777619u;
  std::string bytes(1 + state % 6000, '\0');
  for (char& byte : bytes) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    byte = static_cast<char>('a' + state % 16);
  }
  return bytes;
}

// The failures seen by the worker threads, reported by the test's own thread.
class Findings {
 public:
  void Expect(bool ok, const std::string& what) {
    if (ok) return;
    const std::lock_guard<std::mutex> lock(mutex_);
    if (list_.size() < 20) list_.push_back(what);
  }
  std::vector<std::string> list() const { return list_; }

 private:
  std::mutex mutex_;
  std::vector<std::string> list_;
};

// Reads the file in pieces of 1,000 bytes until a read answers 0, closes it, and answers the
// bytes; a read answering more than it was asked for ends it with a mark no file holds.
std::string ReadAndClose(FileHandle* file) {
  std::string bytes;
  char buffer[1000];
  uint64_t count;
  while ((count = velfsRead(file, buffer, sizeof buffer)) > 0) {
    if (count > sizeof buffer) bytes += "<read too long>";
    if (count > sizeof buffer) break;
    bytes.append(buffer, count);
  }
  velfsCloseFile(file);
  return bytes;
}

bool WriteAndClose(FileHandle* file, const std::string& bytes) {
  const bool written = velfsWrite(file, bytes.data(), bytes.size()) == bytes.size();
  velfsCloseFile(file);
  return file != nullptr && written;
}

// The entry names of a listing, sorted; the listing is closed.
std::vector<std::string> ListAndClose(EnumHandle* listing) {
  std::vector<std::string> names;
  while (velfsMoveNext(listing)) {
    char* name = nullptr;
    if (velfsGetName(listing, &name)) names.emplace_back(name);
    free(name);
  }
  velfsCloseEnum(listing);
  std::sort(names.begin(), names.end());
  return names;
}

void RunThreads(const std::function<void(int thread)>& work) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) threads.emplace_back(work, thread);
  for (std::thread& thread : threads) thread.join();
}

// A scratch directory holding one root of each kind and a second archive and database; every
// root holds kFiles, each with ContentOf(root name + ":" + file name).
class ThreadStress : public ::testing::Test {
 protected:
  static constexpr const char* kRoots[] = {"tree", "one.zip", "two.zip", "one.db", "two.db"};

  void SetUp() override {
    scratch_ = std::filesystem::temp_directory_path() /
               ("velfs-stress-" + std::to_string(::getpid()));
    std::filesystem::remove_all(scratch_);
    std::filesystem::create_directories(scratch_ / "tree" / "docs");
    for (const std::string& file : kFiles) {
      std::ofstream(scratch_ / "tree" / file, std::ios::binary) << ContentOf("tree:" + file);
    }
    for (const std::string root : {"one.zip", "two.zip"}) WriteZip(root);
    for (const std::string root : {"one.db", "two.db"}) {
      DirHandle* database = velfsOpenDir(PathOf(root).c_str());
      ASSERT_NE(database, nullptr);
      for (const std::string& file : kFiles) {
        ASSERT_TRUE(WriteAndClose(velfsCreateFileIndir(database, file.c_str(), 1),
                                  ContentOf(root + ":" + file)));
      }
      velfsCloseDir(database);
    }
  }
  void TearDown() override {
    for (const std::string& problem : findings_.list()) ADD_FAILURE() << problem;
    std::filesystem::remove_all(scratch_);
  }

  std::string PathOf(const std::string& name) const { return (scratch_ / name).string(); }

  void WriteZip(const std::string& root) {
    int error = 0;
    zip_t* archive = zip_open(PathOf(root).c_str(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    ASSERT_NE(archive, nullptr);
    ASSERT_GE(zip_dir_add(archive, "docs", ZIP_FL_ENC_UTF_8), 0);
    contents_.clear();  // libzip reads the buffers only when the archive is closed
    for (const std::string& file : kFiles) contents_.push_back(ContentOf(root + ":" + file));
    for (std::size_t i = 0; i < kFiles.size(); ++i) {
      zip_source_t* source = zip_source_buffer(archive, contents_[i].data(), contents_[i].size(), 0);
      const zip_int64_t index = zip_file_add(archive, kFiles[i].c_str(), source, ZIP_FL_ENC_UTF_8);
      ASSERT_GE(index, 0);
      // Stored and deflated members alternate: the two read paths of the archive reader.
      zip_set_file_compression(archive, index, i % 2 == 0 ? ZIP_CM_DEFLATE : ZIP_CM_STORE, 0);
    }
    ASSERT_EQ(zip_close(archive), 0);
  }

  // Reads every file of `root` and lists "docs/" through the directory handle `dir`; on a
  // database or directory root, also writes a file of this thread and reads it back. `dirUse`,
  // when given, is held around each call that takes `dir`, for a root shared by the threads.
  void ExerciseRoot(DirHandle* dir, const std::string& root, int thread, int round,
                    std::mutex* dirUse) {
    const auto withDir = [&](const auto& call) {
      if (dirUse == nullptr) return call();
      const std::lock_guard<std::mutex> lock(*dirUse);
      return call();
    };
    const std::string where = root + " thread " + std::to_string(thread) + ": ";
    for (const std::string& file : kFiles) {
      FileHandle* handle = withDir([&] { return velfsCreateFileIndir(dir, file.c_str(), 0); });
      findings_.Expect(ReadAndClose(handle) == ContentOf(root + ":" + file), where + file);
    }
    EnumHandle* listing = withDir([&] { return velfsCreateEnumIndir(dir, "docs/"); });
    findings_.Expect(ListAndClose(listing) == kDocsListing, where + "listing of docs/");
    bool exists = false;
    findings_.Expect(withDir([&] { return velfsIsFileExist(dir, "docs/f2.txt", &exists); }) &&
                         exists,
                     where + "docs/f2.txt exists");
    if (root.find(".zip") != std::string::npos) return;
    const std::string own = "t" + std::to_string(thread) + "/r" + std::to_string(round) + ".bin";
    const std::string bytes = ContentOf(where + own);
    FileHandle* writer = withDir([&] { return velfsCreateFileIndir(dir, own.c_str(), 1); });
    findings_.Expect(WriteAndClose(writer, bytes), where + "writing " + own);
    FileHandle* reader = withDir([&] { return velfsCreateFileIndir(dir, own.c_str(), 0); });
    findings_.Expect(ReadAndClose(reader) == bytes, where + "reading back " + own);
  }

  std::filesystem::path scratch_;
  std::vector<std::string> contents_;
  Findings findings_;
};

// Threads 0-4 each own one of the five roots; threads 5-7 open the directory and the two
// archives a second time (separate storages of the same files). Every thread also opens files
// and listings from full paths, each with a storage of its own.
TEST_F(ThreadStress, DistinctRootsWorkInParallel) {
  RunThreads([&](int thread) {
    const std::string root = kRoots[thread % 5];
    const std::string container =
        root == "tree" ? PathOf("tree") + "/docs/" : PathOf(root) + ":docs/";
    for (int round = 0; round < kRounds; ++round) {
      DirHandle* dir = velfsOpenDir(PathOf(root).c_str());
      findings_.Expect(dir != nullptr, "opening " + root);
      ExerciseRoot(dir, root, thread, round, nullptr);
      velfsCloseDir(dir);
      const std::string file = container + "f" + std::to_string(round % 4) + ".txt";
      findings_.Expect(ReadAndClose(velfsCreateFile(file.c_str(), 0)) ==
                           ContentOf(root + ":docs/f" + std::to_string(round % 4) + ".txt"),
                       "full path " + file);
      findings_.Expect(ListAndClose(velfsCreateEnum(container.c_str())) == kDocsListing,
                       "full-path listing of " + container);
    }
  });
}

// One directory handle per kind of root, opened once and used by all threads: the handles
// made through it are read, written, listed and closed on every thread at once.
TEST_F(ThreadStress, OneSharedRootOfEachKindServesEveryThread) {
  const std::vector<std::string> shared = {"tree", "one.zip", "one.db"};
  std::vector<DirHandle*> dirs;
  for (const std::string& root : shared) dirs.push_back(velfsOpenDir(PathOf(root).c_str()));
  for (DirHandle* dir : dirs) ASSERT_NE(dir, nullptr);
  std::mutex dirUse[3];
  RunThreads([&](int thread) {
    for (int round = 0; round < kRounds; ++round) {
      const int kind = (thread + round) % 3;
      ExerciseRoot(dirs[kind], shared[kind], thread, round, &dirUse[kind]);
    }
  });
  for (DirHandle* dir : dirs) velfsCloseDir(dir);
}

// Mounts shared by all threads (a directory as "app:", an archive, a database) are read and
// written through stubs, while every thread also mounts, uses and unmounts names of its own.
TEST_F(ThreadStress, MountsAndStubsServeEveryThread) {
  velFSMountPath("app:", PathOf("tree").c_str());
  velFSMountPath("pack:", PathOf("one.zip").c_str());
  velFSMountPath("store:", PathOf("one.db").c_str());
  const auto readStub = [](const std::string& path) {
    FileStub* stub = velFSCreateStub(path.c_str(), 0);
    if (stub == nullptr) return std::string("<no stub>");
    std::string bytes;
    char buffer[700];
    uint64_t count;
    while ((count = stub->read(stub->file, buffer, sizeof buffer)) > 0 && count <= sizeof buffer) {
      bytes.append(buffer, count);
    }
    velFSDeleteStub(stub);
    return bytes;
  };
  RunThreads([&](int thread) {
    const std::string own = "own" + std::to_string(thread) + ":";
    const std::string ownRoot = kRoots[thread % 3];
    for (int round = 0; round < kRounds; ++round) {
      const std::string file = kFiles[(thread + round) % kFiles.size()];
      findings_.Expect(readStub(file) == ContentOf("tree:" + file), "app: " + file);
      findings_.Expect(readStub("pack:" + file) == ContentOf("one.zip:" + file), "pack:" + file);
      findings_.Expect(readStub("store:" + file) == ContentOf("one.db:" + file), "store:" + file);
      // A new file each round: a database file opened for writing keeps its old length.
      const std::string written =
          "store:t" + std::to_string(thread) + "/s" + std::to_string(round) + ".bin";
      const std::string bytes = ContentOf(written);
      FileStub* writer = velFSCreateStub(written.c_str(), 1);
      findings_.Expect(writer != nullptr &&
                           writer->write(writer->file, bytes.data(), bytes.size()) == bytes.size(),
                       "writing " + written);
      velFSDeleteStub(writer);
      findings_.Expect(readStub(written) == bytes, "reading back " + written);

      velFSMountPath(own.c_str(), PathOf(ownRoot).c_str());
      findings_.Expect(readStub(own + file) == ContentOf(ownRoot + ":" + file), own + file);
      const std::string expected = PathOf(ownRoot) + "/" + file;
      char mapped[4096];
      findings_.Expect(velFSVelToSyspath((own + file).c_str(), mapped, sizeof mapped) ==
                               expected.size() &&
                           expected == mapped,
                       "mapping " + own + file);
      velFSUnmountPath(own.c_str());
      findings_.Expect(velFSVelToSyspath((own + file).c_str(), nullptr, 0) == 0,
                       own + " still maps after unmounting");
    }
  });
  for (const char* name : {"app:", "pack:", "store:"}) velFSUnmountPath(name);
}

}  // namespace
