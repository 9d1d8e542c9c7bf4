// Eight threads at once on every kind of root, through the exported functions only: opening,
// reading (every byte compared with what was written), writing, listing and closing. The threads
// keep the one rule of velfs.h, that a handle is used by one thread at a time, and no other:
// handles made through one shared root, and stubs of one mount, are used from every thread.
// Under ThreadSanitizer (-DVELFS_TSAN=ON) any unguarded shared state is reported; in every build
// the bytes and listings must come out right. Iteration counts are fixed.
#include <functional>
#include <mutex>
#include <thread>

#include "support.h"

namespace velfs_test {
namespace {

constexpr int kThreads = 8;
constexpr int kRounds = 6;
const char* const kRoots[] = {"tree", "one.zip", "two.zip", "one.db", "two.db"};
const std::vector<std::string> kFiles = {"top.txt", "docs/f0.txt", "docs/f1.txt", "docs/f2.txt",
                                         "docs/f3.txt"};
const std::map<std::string, bool> kDocsListing = {
    {"docs/f0.txt", false}, {"docs/f1.txt", false}, {"docs/f2.txt", false}, {"docs/f3.txt", false}};

// 1 to 6,000 bytes determined by `name`: a read from the wrong file, root or position cannot
// match.
std::string ContentOf(const std::string& name) {
  uint32_t hash = 2166136261u;
  for (const unsigned char c : name) hash = (hash ^ c) * 16777619u;
  return Noise(1 + hash % 6000, hash);
}

std::string ReadStub(const std::string& path) {
  FileStub* stub = velFSCreateStub(path.c_str(), 0);
  if (stub == nullptr) return "<no stub>";
  std::string bytes;
  char buffer[1000];
  for (uint64_t count; (count = stub->read(stub->file, buffer, sizeof buffer)) > 0;) {
    bytes.append(buffer, std::min<uint64_t>(count, sizeof buffer));
  }
  velFSDeleteStub(stub);
  return bytes;
}

void RunThreads(const std::function<void(int thread)>& work) {
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) threads.emplace_back(work, thread);
  for (std::thread& thread : threads) thread.join();
}

// The five roots of kRoots and a database shared by every thread; each holds kFiles, the file f of root r with ContentOf(r + ":" + f).
// The archives alternate deflated and stored members.
class ThreadStress : public ScratchTest {
 protected:
  void SetUp() override {
    ScratchTest::SetUp();
    std::filesystem::create_directories(PathOf("tree/docs"));
    for (const std::string& file : kFiles) {
      WriteHostFile(PathOf("tree/" + file), ContentOf("tree:" + file));
    }
    for (const std::string root : {"one.zip", "two.zip"}) {
      std::vector<ZipMember> members;
      for (const std::string& file : kFiles) {
        members.push_back({file, ContentOf(root + ":" + file), members.size() % 2 == 0});
      }
      WriteZip(PathOf(root), members);
    }
    for (const std::string root : {"one.db", "two.db", "shared.db"}) {
      DirHandle* database = velfsOpenDir(PathOf(root).c_str());
      for (const std::string& file : kFiles) {
        ASSERT_TRUE(WriteAndClose(velfsCreateFileIndir(database, file.c_str(), 1),
                                  ContentOf(root + ":" + file)));
      }
      velfsCloseDir(database);
    }
  }

  // Reads every file of `root`, lists "docs/" and tests a file through `dir`; on a directory or
  // database root also writes a new file and reads it back. `dirUse`, when given, is held around
  // each call that takes `dir` itself: the handles made through it are used without it.
  static void ExerciseRoot(DirHandle* dir, const std::string& root, int thread, int round,
                           std::mutex* dirUse = nullptr) {
    const auto withDir = [&](const auto& call) {
      std::unique_lock<std::mutex> lock;
      if (dirUse != nullptr) lock = std::unique_lock<std::mutex>(*dirUse);
      return call();
    };
    for (const std::string& file : kFiles) {
      FileHandle* handle = withDir([&] { return velfsCreateFileIndir(dir, file.c_str(), 0); });
      EXPECT_EQ(ReadAndClose(handle), ContentOf(root + ":" + file)) << root << ":" << file;
    }
    EXPECT_EQ(Listing(withDir([&] { return velfsCreateEnumIndir(dir, "docs/"); })),
              kDocsListing)
        << root;
    bool exists = false;
    EXPECT_TRUE(withDir([&] { return velfsIsFileExist(dir, "docs/f2.txt", &exists); }) && exists);
    if (root.find(".zip") != std::string::npos) return;
    // A new file each round: a database file opened for writing keeps its old length.
    const std::string own = "t" + std::to_string(thread) + "/r" + std::to_string(round) + ".bin";
    EXPECT_TRUE(WriteAndClose(withDir([&] { return velfsCreateFileIndir(dir, own.c_str(), 1); }),
                              ContentOf(root + own)))
        << root << ":" << own;
    EXPECT_EQ(ReadAndClose(withDir([&] { return velfsCreateFileIndir(dir, own.c_str(), 0); })),
              ContentOf(root + own))
        << root << ":" << own;
  }
};

// Each round a thread opens a root of its own (threads 0-4 one each, threads 5-7 the directory
// and the two archives a second time) and files and listings from full paths, each with its own
// storage; then it works through one of three directory handles opened once, one per kind of
// root, whose files and listings are read, written and closed on every thread at once.
TEST_F(ThreadStress, OwnAndSharedRootsWorkInParallel) {
  const std::string shared[] = {"tree", "one.zip", "shared.db"};
  DirHandle* dirs[3];
  std::mutex dirUse[3];
  for (int kind = 0; kind < 3; ++kind) dirs[kind] = velfsOpenDir(PathOf(shared[kind]).c_str());
  RunThreads([&](int thread) {
    const std::string root = kRoots[thread % 5];
    for (int round = 0; round < kRounds; ++round) {
      DirHandle* dir = velfsOpenDir(PathOf(root).c_str());
      ASSERT_NE(dir, nullptr) << root;
      ExerciseRoot(dir, root, thread, round);
      velfsCloseDir(dir);
      const std::string file = "docs/f" + std::to_string(round % 4) + ".txt";
      EXPECT_EQ(ReadAndClose(velfsCreateFile((PathOf(root) + ":" + file).c_str(), 0)),
                ContentOf(root + ":" + file))
          << root << ":" << file;
      EXPECT_EQ(Listing(velfsCreateEnum((PathOf(root) + ":docs/").c_str())), kDocsListing)
          << root;
      const int kind = (thread + round) % 3;
      ExerciseRoot(dirs[kind], shared[kind], thread, round, &dirUse[kind]);
    }
  });
  for (DirHandle* dir : dirs) velfsCloseDir(dir);
}

// Mounts shared by all threads ("app:" on the directory, an archive, a database) are read and
// written through stubs, while every thread also mounts, maps and unmounts a name of its own.
TEST_F(ThreadStress, MountsAndStubsServeEveryThread) {
  velFSMountPath("app:", PathOf("tree").c_str());
  velFSMountPath("pack:", PathOf("one.zip").c_str());
  velFSMountPath("store:", PathOf("one.db").c_str());
  RunThreads([&](int thread) {
    const std::string own = "own" + std::to_string(thread) + ":";
    const std::string ownRoot = kRoots[thread % 3];
    for (int round = 0; round < kRounds; ++round) {
      const std::string file = kFiles[(thread + round) % kFiles.size()];
      EXPECT_EQ(ReadStub(file), ContentOf("tree:" + file)) << file;
      EXPECT_EQ(ReadStub("pack:" + file), ContentOf("one.zip:" + file)) << file;
      EXPECT_EQ(ReadStub("store:" + file), ContentOf("one.db:" + file)) << file;
      const std::string written = "store:t" + std::to_string(thread) + "/s" + std::to_string(round);
      FileStub* writer = velFSCreateStub(written.c_str(), 1);
      ASSERT_NE(writer, nullptr) << written;
      const std::string bytes = ContentOf(written);
      EXPECT_EQ(writer->write(writer->file, bytes.data(), bytes.size()), bytes.size()) << written;
      velFSDeleteStub(writer);
      EXPECT_EQ(ReadStub(written), bytes) << written;

      velFSMountPath(own.c_str(), PathOf(ownRoot).c_str());
      EXPECT_EQ(ReadStub(own + file), ContentOf(ownRoot + ":" + file)) << own << file;
      char mapped[4096] = {};
      velFSVelToSyspath((own + file).c_str(), mapped, sizeof mapped - 1);
      EXPECT_EQ(std::string(mapped), PathOf(ownRoot) + "/" + file);
      velFSUnmountPath(own.c_str());
      EXPECT_EQ(velFSVelToSyspath((own + file).c_str(), nullptr, 0), 0u) << own << " unmounted";
    }
  });
  for (const char* name : {"app:", "pack:", "store:"}) velFSUnmountPath(name);
}

}  // namespace
}  // namespace velfs_test
