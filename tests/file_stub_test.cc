// Part 2.2: stub files and host registration — velFSCreateStub, velFSDeleteStub, the FileStub
// record and its six functions, velFSInitFileSystem, DllMain, and the stand-in host I/O layer
// velIOStub (velRegisterFS, velIORegistrations, velIOOpen, velIOClose).
//
// In this test binary the library's objects are linked statically and the load-time constructor
// (src/mount/load_time_posix.cc) is not pulled in, so the tests register by calling
// velFSInitFileSystem or DllMain themselves; the host program (tests/host) checks the
// registration at load time.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "core_fakes.h"
#include "mount/file_stub.h"
#include "mount_test_support.h"
#include "test_support.h"
#include "velIOStub.h"
#include "velfs.h"

namespace velfs::testing {
namespace {

namespace fs = std::filesystem;

using FileStubTest = MountFixture;

// --- Edge cases of Part 2.2 -----------------------------------------------------------------

TEST_F(FileStubTest, P2_2_01_BarePathOpensUnderAppNullWithoutApp) {
  const std::string root = MakeDir("root");
  WriteHostFile(root + "/a.txt", "under app");
  // No "app:" mounted (another name is): a bare path answers null and creates nothing.
  Mount("other:", root);
  EXPECT_EQ(velFSCreateStub("a.txt", 0), nullptr);
  EXPECT_EQ(velFSCreateStub("made.txt", 1), nullptr);
  EXPECT_FALSE(fs::exists(root + "/made.txt"));

  Mount("app:", root);
  {
    StubPtr stub = OpenStub("a.txt", 0);
    ASSERT_NE(stub, nullptr);
    EXPECT_EQ(ReadAll(stub.get()), "under app");
  }
  {
    StubPtr stub = OpenStub("made.txt", 1);
    ASSERT_NE(stub, nullptr);
    EXPECT_EQ(WriteText(stub.get(), "made"), 4u);
  }
  EXPECT_EQ(ReadHostFile(root + "/made.txt"), "made");
}

TEST_F(FileStubTest, P2_2_02_MountNameWithNothingAfterColonNull) {
  const std::string root = MakeDir("root");
  Mount("app:", root);
  Mount("db:", PathOf("store.db"));
  for (uint32_t mode = 0; mode <= 5; ++mode) {
    EXPECT_EQ(velFSCreateStub("app:", mode), nullptr) << mode;
    EXPECT_EQ(velFSCreateStub("db:", mode), nullptr) << mode;
  }
  EXPECT_TRUE(fs::is_empty(root));
  SecondConnection second(PathOf("store.db"));
  EXPECT_EQ(second.RowCount(), 0);
}

TEST_F(FileStubTest, P2_2_03_UnmountedNameNull) {
  const std::string root = MakeDir("root");
  Mount("app:", root);
  EXPECT_EQ(velFSCreateStub("other:a.txt", 1), nullptr);
  EXPECT_EQ(velFSCreateStub("APP:a.txt", 1), nullptr);
  EXPECT_EQ(velFSCreateStub("C:/a.txt", 1), nullptr);
  EXPECT_TRUE(fs::is_empty(root));
}

TEST_F(FileStubTest, P2_2_04_NativeModeZeroMissingNullModeOneCreatesSubdirectories) {
  const std::string root = MakeDir("root");
  Mount("app:", root);
  EXPECT_EQ(velFSCreateStub("app:missing.txt", 0), nullptr);
  EXPECT_EQ(velFSCreateStub("app:sub/missing.txt", 0), nullptr);
  EXPECT_EQ(velFSCreateStub("app:sub/missing.txt", 3), nullptr);
  EXPECT_TRUE(fs::is_empty(root));  // no file, no directory

  {
    StubPtr stub = OpenStub("app:a/b/c.txt", 1);
    ASSERT_NE(stub, nullptr);
    EXPECT_TRUE(fs::is_directory(root + "/a"));
    EXPECT_TRUE(fs::is_directory(root + "/a/b"));
    EXPECT_TRUE(fs::is_regular_file(root + "/a/b/c.txt"));
    EXPECT_EQ(WriteText(stub.get(), "deep"), 4u);
  }
  EXPECT_EQ(ReadHostFile(root + "/a/b/c.txt"), "deep");
}

TEST_F(FileStubTest, P2_2_05_SeekAnswersStorageSeekResizeZero) {
  const std::string root = MakeDir("root");
  Mount("app:", root);
  Mount("db:", PathOf("store.db"));
  {
    // Native file: Seek answers 0 on success, -1 on failure (Part 4.2).
    StubPtr stub = OpenStub("app:n.txt", 4);
    ASSERT_NE(stub, nullptr);
    EXPECT_EQ(WriteText(stub.get(), "abcdef"), 6u);
    EXPECT_EQ(stub->seek(stub->file, 2, 0), 0);
    EXPECT_EQ(stub->tell(stub->file), 2);
    EXPECT_EQ(stub->seek(stub->file, 1, 1), 0);
    EXPECT_EQ(stub->tell(stub->file), 3);
    EXPECT_EQ(stub->seek(stub->file, -1, 2), 0);
    EXPECT_EQ(stub->tell(stub->file), 5);
    EXPECT_EQ(stub->seek(stub->file, -1, 0), -1);
    EXPECT_EQ(stub->tell(stub->file), 5);
    EXPECT_EQ(stub->resize(stub->file, 2), 0);
    EXPECT_EQ(stub->resize(stub->file, 100), 0);
    EXPECT_EQ(stub->seek(stub->file, 0, 0), 0);
    EXPECT_EQ(ReadAll(stub.get()), "abcdef");
  }
  EXPECT_EQ(ReadHostFile(root + "/n.txt"), "abcdef");  // resize never reached the file
  {
    // Database file: Seek answers the new position, or the old one for a refused target.
    StubPtr stub = OpenStub("db:d.txt", 1);
    ASSERT_NE(stub, nullptr);
    EXPECT_EQ(stub->seek(stub->file, 0, 0), -1);  // no row yet
    EXPECT_EQ(WriteText(stub.get(), "abcdef"), 6u);
    EXPECT_EQ(stub->seek(stub->file, 2, 0), 2);
    EXPECT_EQ(stub->seek(stub->file, 1, 1), 3);
    EXPECT_EQ(stub->seek(stub->file, -1, 2), 5);
    EXPECT_EQ(stub->seek(stub->file, 7, 0), 5);
    EXPECT_EQ(stub->tell(stub->file), 5);
    EXPECT_EQ(stub->resize(stub->file, 2), 0);
    EXPECT_EQ(stub->seek(stub->file, 0, 0), 0);
    EXPECT_EQ(ReadAll(stub.get()), "abcdef");
  }
  SecondConnection second(PathOf("store.db"));
  std::string content;
  EXPECT_TRUE(second.ReadRow("d.txt", "", &content));
  EXPECT_EQ(content, "abcdef");
}

TEST_F(FileStubTest, P2_2_06_DeleteStubOfNullDoesNothing) {
  const std::string root = MakeDir("root");
  Mount("app:", root);
  velFSDeleteStub(nullptr);
  EXPECT_EQ(Map("app:x"), root + "/x");
  // Through the host layer too, once the callbacks are registered.
  ASSERT_EQ(velFSInitFileSystem(), 1);
  velIOClose(nullptr);
  EXPECT_EQ(Map("app:x"), root + "/x");
  EXPECT_TRUE(fs::is_empty(root));
}

TEST_F(FileStubTest, P2_2_07_DllMainOtherReasonsDoNotRegister) {
  const int32_t before = velIORegistrations();
  EXPECT_EQ(DllMain(nullptr, 0, nullptr), 1);  // process detach
  EXPECT_EQ(DllMain(nullptr, 2, nullptr), 1);  // thread attach
  EXPECT_EQ(DllMain(nullptr, 3, nullptr), 1);  // thread detach
  EXPECT_EQ(DllMain(nullptr, 99, nullptr), 1);
  EXPECT_EQ(velIORegistrations(), before);
  // Process attach registers once more, each time.
  EXPECT_EQ(DllMain(nullptr, 1, nullptr), 1);
  EXPECT_EQ(velIORegistrations(), before + 1);
  EXPECT_EQ(DllMain(nullptr, 1, nullptr), 1);
  EXPECT_EQ(velIORegistrations(), before + 2);
}

// --- Further cases of the issue -------------------------------------------------------------

TEST_F(FileStubTest, RecordLayoutIsSevenPointerFields) {
  EXPECT_EQ(sizeof(FileStub), 56u);
  EXPECT_EQ(offsetof(FileStub, read), 0u);
  EXPECT_EQ(offsetof(FileStub, write), 8u);
  EXPECT_EQ(offsetof(FileStub, tell), 16u);
  EXPECT_EQ(offsetof(FileStub, seek), 24u);
  EXPECT_EQ(offsetof(FileStub, error), 32u);
  EXPECT_EQ(offsetof(FileStub, resize), 40u);
  EXPECT_EQ(offsetof(FileStub, file), 48u);

  const std::string root = MakeDir("root");
  Mount("app:", root);
  Mount("db:", PathOf("store.db"));
  StubPtr native = OpenStub("app:a.txt", 1);
  StubPtr row = OpenStub("db:a.txt", 1);
  ASSERT_NE(native, nullptr);
  ASSERT_NE(row, nullptr);
  // The same six functions in every record; only the file differs.
  EXPECT_EQ(native->read, row->read);
  EXPECT_EQ(native->write, row->write);
  EXPECT_EQ(native->tell, row->tell);
  EXPECT_EQ(native->seek, row->seek);
  EXPECT_EQ(native->error, row->error);
  EXPECT_EQ(native->resize, row->resize);
  EXPECT_NE(native->file, nullptr);
  EXPECT_NE(row->file, nullptr);
  EXPECT_NE(native->file, row->file);
}

TEST_F(FileStubTest, StubFunctionsWithNullFile) {
  const std::string root = MakeDir("root");
  Mount("app:", root);
  StubPtr stub = OpenStub("app:a.txt", 1);
  ASSERT_NE(stub, nullptr);
  char buffer[4] = {'#', '#', '#', '#'};
  EXPECT_EQ(stub->read(nullptr, buffer, sizeof buffer), 0u);
  EXPECT_EQ(std::string(buffer, 4), "####");
  EXPECT_EQ(stub->write(nullptr, "data", 4), 0u);
  EXPECT_EQ(stub->tell(nullptr), 0);
  EXPECT_EQ(stub->seek(nullptr, 0, 0), -1);
  EXPECT_EQ(stub->seek(nullptr, 2, 1), -1);
  EXPECT_EQ(stub->error(nullptr), 0);
  EXPECT_EQ(stub->resize(nullptr, 4), 0);
  // The record's own file saw none of it.
  EXPECT_EQ(stub->tell(stub->file), 0);
  EXPECT_EQ(ReadHostFile(root + "/a.txt"), "");
}

TEST_F(FileStubTest, ErrorPassedOnUnchanged) {
  // A file whose Error answers 7: the stub answers 7, not 1.
  corefakes::EventLog log;
  FileStub* fake = MakeFileStub(std::make_unique<corefakes::FakeFile>(&log, 7));
  ASSERT_NE(fake, nullptr);
  EXPECT_EQ(fake->error(fake->file), 7);
  EXPECT_EQ(fake->tell(fake->file), 17);
  EXPECT_EQ(fake->seek(fake->file, 9, 0), 9);
  velFSDeleteStub(fake);  // destroys the file, then the record
  ASSERT_EQ(log.events.size(), 1u);
  EXPECT_EQ(log.events[0], "~file");

  // Database file (Part 3.2): 1 at the end of its data, 0 before it, 1 without a row.
  Mount("db:", PathOf("store.db"));
  StubPtr row = OpenStub("db:e.txt", 1);
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(row->error(row->file), 1);
  EXPECT_EQ(WriteText(row.get(), "abc"), 3u);
  EXPECT_EQ(row->error(row->file), 1);
  EXPECT_EQ(row->seek(row->file, 1, 0), 1);
  EXPECT_EQ(row->error(row->file), 0);
  char buffer[10];
  EXPECT_EQ(row->read(row->file, buffer, sizeof buffer), 2u);
  EXPECT_EQ(std::string(buffer, 2), "bc");
  EXPECT_EQ(row->error(row->file), 1);

  // Native file (Part 4.2): the stream's end-of-file indicator, exactly as feof answers it.
  const std::string root = MakeDir("root");
  WriteHostFile(root + "/n.txt", "xy");
  std::FILE* plain = std::fopen((root + "/n.txt").c_str(), "rb");
  ASSERT_NE(plain, nullptr);
  char sink[10];
  EXPECT_EQ(std::fread(sink, 1, sizeof sink, plain), 2u);
  const int atEnd = std::feof(plain);
  std::fclose(plain);
  ASSERT_NE(atEnd, 0);
  Mount("app:", root);
  StubPtr native = OpenStub("app:n.txt", 0);
  ASSERT_NE(native, nullptr);
  EXPECT_EQ(native->error(native->file), 0);
  EXPECT_EQ(native->read(native->file, buffer, 2), 2u);
  EXPECT_EQ(native->error(native->file), 0);  // at the end, but no read has run into it
  EXPECT_EQ(native->read(native->file, buffer, sizeof buffer), 0u);
  EXPECT_EQ(native->error(native->file), atEnd);
}

TEST_F(FileStubTest, DatabaseMountWriteVisibleToSecondConnectionAtOnce) {
  const std::string store = PathOf("store.db");
  Mount("db:", store);
  StubPtr stub = OpenStub("db:docs/a.txt", 1);
  ASSERT_NE(stub, nullptr);
  EXPECT_EQ(stub->tell(stub->file), 0);
  EXPECT_EQ(WriteText(stub.get(), "hello"), 5u);
  EXPECT_EQ(stub->tell(stub->file), 5);
  {
    SecondConnection second(store);  // while the stub is still open
    std::string content;
    EXPECT_TRUE(second.ReadRow("a.txt", "docs/", &content));
    EXPECT_EQ(content, "hello");
    EXPECT_EQ(second.RowCount(), 1);
  }
  // Overwrite in place, then append past the end.
  EXPECT_EQ(stub->seek(stub->file, 1, 0), 1);
  EXPECT_EQ(WriteText(stub.get(), "EL"), 2u);
  EXPECT_EQ(stub->seek(stub->file, 0, 2), 5);
  EXPECT_EQ(WriteText(stub.get(), "!!"), 2u);
  EXPECT_EQ(stub->tell(stub->file), 7);
  {
    SecondConnection second(store);
    std::string content;
    EXPECT_TRUE(second.ReadRow("a.txt", "docs/", &content));
    EXPECT_EQ(content, "hELlo!!");
  }
  EXPECT_EQ(stub->seek(stub->file, 0, 0), 0);
  EXPECT_EQ(ReadAll(stub.get()), "hELlo!!");
  // A second stub on the same row sees the same bytes; a bare path does not reach "db:".
  StubPtr again = OpenStub("db:docs\\a.txt", 0);
  ASSERT_NE(again, nullptr);
  EXPECT_EQ(ReadAll(again.get()), "hELlo!!");
  EXPECT_EQ(velFSCreateStub("docs/a.txt", 0), nullptr);
}

TEST_F(FileStubTest, StubPathsWithBackslashesAreNormalised) {
  const std::string root = MakeDir("root");
  Mount("app:", root);
  {
    StubPtr named = OpenStub("app:sub\\f.txt", 1);
    StubPtr bare = OpenStub("sub2\\g.txt", 1);
    ASSERT_NE(named, nullptr);
    ASSERT_NE(bare, nullptr);
    EXPECT_EQ(WriteText(named.get(), "f"), 1u);
    EXPECT_EQ(WriteText(bare.get(), "g"), 1u);
  }
  EXPECT_EQ(ReadHostFile(root + "/sub/f.txt"), "f");
  EXPECT_EQ(ReadHostFile(root + "/sub2/g.txt"), "g");
  EXPECT_EQ(velFSCreateStub(nullptr, 1), nullptr);
  EXPECT_EQ(velFSCreateStub("", 1), nullptr);
}

TEST_F(FileStubTest, RegisterFSWithNullCallbackAnswersZeroStoresNothing) {
  static int creates = 0;
  static int deletes = 0;
  creates = deletes = 0;
  const VelCreateStubFn countingCreate = [](const char*, uint32_t) -> FileStub* {
    ++creates;
    return nullptr;
  };
  const VelDeleteStubFn countingDelete = [](FileStub*) { ++deletes; };

  ASSERT_EQ(velFSInitFileSystem(), 1);  // the library's callbacks are the stored ones
  const int32_t before = velIORegistrations();
  EXPECT_EQ(velRegisterFS(nullptr, countingDelete), 0);
  EXPECT_EQ(velRegisterFS(countingCreate, nullptr), 0);
  EXPECT_EQ(velRegisterFS(nullptr, nullptr), 0);
  EXPECT_EQ(velIORegistrations(), before);

  // Still the library's callbacks: velIOOpen reaches velFSCreateStub, velIOClose velFSDeleteStub.
  const std::string root = MakeDir("root");
  Mount("app:", root);
  FileStub* stub = velIOOpen("notes/a.txt", 1);
  ASSERT_NE(stub, nullptr);
  EXPECT_EQ(stub->write(stub->file, "io", 2), 2u);
  velIOClose(stub);
  velIOClose(nullptr);
  EXPECT_EQ(creates, 0);
  EXPECT_EQ(deletes, 0);
  EXPECT_EQ(ReadHostFile(root + "/notes/a.txt"), "io");
}

TEST_F(FileStubTest, InitFileSystemRegistersOnceMorePerCall) {
  const int32_t before = velIORegistrations();
  EXPECT_EQ(velFSInitFileSystem(), 1);
  EXPECT_EQ(velIORegistrations(), before + 1);
  EXPECT_EQ(velFSInitFileSystem(), 1);
  EXPECT_EQ(velIORegistrations(), before + 2);

  const std::string root = MakeDir("root");
  WriteHostFile(root + "/r.txt", "read me");
  Mount("app:", root);
  FileStub* stub = velIOOpen("app:r.txt", 0);
  ASSERT_NE(stub, nullptr);
  char buffer[16];
  EXPECT_EQ(stub->read(stub->file, buffer, sizeof buffer), 7u);
  EXPECT_EQ(std::string(buffer, 7), "read me");
  velIOClose(stub);
  EXPECT_EQ(velIOOpen("app:", 0), nullptr);
  EXPECT_EQ(velIOOpen("none:r.txt", 0), nullptr);
}

}  // namespace
}  // namespace velfs::testing
