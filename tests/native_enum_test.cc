// Part 4.3: NativeEnum, through the exported listing functions on a native root (and on the
// back-end object where the Part speaks of its operations directly).
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "core/handle_records.h"
#include "native/native_enum.h"
#include "native_test_support.h"

namespace velfs::testing {
namespace {

class NativeEnumTest : public NativeRootTest {
 protected:
  EnumPtr List(const char* path) { return EnumPtr(velfsCreateEnumIndir(dir_handle_.get(), path)); }

  static std::vector<Listed> Sorted(std::vector<Listed> entries) {
    std::sort(entries.begin(), entries.end());
    return entries;
  }
};

// A pointer value no allocation returns: "stores nothing" means it is still there afterwards.
char* const kUntouched = reinterpret_cast<char*>(static_cast<uintptr_t>(0x1));

TEST_F(NativeEnumTest, P4_3_01_EmptyDirectoryHasNoEntry) {
  std::filesystem::create_directory(PathOf("empty"));
  EnumPtr listing = List("empty/");
  ASSERT_NE(listing, nullptr);
  EXPECT_FALSE(velfsMoveNext(listing.get()));
  char* name = kUntouched;
  EXPECT_FALSE(velfsGetName(listing.get(), &name));
  EXPECT_EQ(name, kUntouched);
  EXPECT_FALSE(velfsMoveNext(listing.get()));  // and stays at the end

  // The scratch root itself, still empty.
  EnumPtr root = List("");
  ASSERT_NE(root, nullptr);
  EXPECT_TRUE(velfsMoveNext(root.get()));  // "empty" only
  EXPECT_FALSE(velfsMoveNext(root.get()));
}

TEST_F(NativeEnumTest, P4_3_02_FileAndSubdirectoryGiveExactlyTwoEntries) {
  std::filesystem::create_directories(PathOf("d/sub"));
  WriteHostFile(PathOf("d/f.txt"), "x");
  EnumPtr listing = List("d/");
  ASSERT_NE(listing, nullptr);
  const std::vector<Listed> entries = ListRest(listing.get());
  ASSERT_EQ(entries.size(), 2u);  // "." and ".." never appear
  EXPECT_EQ(Sorted(entries),
            (std::vector<Listed>{{"f.txt", "d/f.txt", false}, {"sub", "d/sub/", true}}));
  EXPECT_FALSE(velfsMoveNext(listing.get()));
}

TEST_F(NativeEnumTest, P4_3_03_QueriesBeforeFirstMoveNextAnswerFalse) {
  std::filesystem::create_directories(PathOf("d/sub"));  // the only entry is a directory
  EnumPtr listing = List("d/");
  ASSERT_NE(listing, nullptr);
  char* name = kUntouched;
  EXPECT_FALSE(velfsGetName(listing.get(), &name));
  EXPECT_EQ(name, kUntouched);
  EXPECT_FALSE(velfsIsDirectory(listing.get()));
  EXPECT_FALSE(velfsGetFullName(listing.get(), &name));
  EXPECT_EQ(name, kUntouched);
  // After the first step the same queries answer.
  ASSERT_TRUE(velfsMoveNext(listing.get()));
  EXPECT_TRUE(velfsIsDirectory(listing.get()));
  name = nullptr;
  EXPECT_TRUE(velfsGetName(listing.get(), &name));
  EXPECT_EQ(TakeText(name), "sub");
}

TEST_F(NativeEnumTest, P4_3_04_GetFullNameAfterEndStoresNothing) {
  std::filesystem::create_directory(PathOf("d"));
  WriteHostFile(PathOf("d/f.txt"), "x");
  EnumPtr listing = List("d/");
  ASSERT_NE(listing, nullptr);
  ASSERT_TRUE(velfsMoveNext(listing.get()));
  ASSERT_FALSE(velfsMoveNext(listing.get()));
  char* name = kUntouched;
  EXPECT_FALSE(velfsGetFullName(listing.get(), &name));
  EXPECT_EQ(name, kUntouched);
  EXPECT_FALSE(velfsGetName(listing.get(), &name));
  EXPECT_EQ(name, kUntouched);
  EXPECT_FALSE(velfsIsDirectory(listing.get()));
}

TEST_F(NativeEnumTest, P4_3_05_FullNameOfSubdirectoryEndsInOneSlash) {
  std::filesystem::create_directories(PathOf("a/b"));
  {
    EnumPtr listing = List("a/");
    ASSERT_NE(listing, nullptr);
    ASSERT_TRUE(velfsMoveNext(listing.get()));
    ASSERT_TRUE(velfsIsDirectory(listing.get()));
    char* name = nullptr;
    ASSERT_TRUE(velfsGetFullName(listing.get(), &name));
    EXPECT_EQ(TakeText(name), "a/b/");
  }
  {  // in a listing of the root the relative path is empty
    EnumPtr listing = List("");
    ASSERT_NE(listing, nullptr);
    ASSERT_TRUE(velfsMoveNext(listing.get()));
    char* name = nullptr;
    ASSERT_TRUE(velfsGetFullName(listing.get(), &name));
    EXPECT_EQ(TakeText(name), "a/");
  }
  {  // a doubled separator in the relative path stays; only the one '/' is appended
    EnumPtr listing = List("a//");
    ASSERT_NE(listing, nullptr);
    ASSERT_TRUE(velfsMoveNext(listing.get()));
    char* name = nullptr;
    ASSERT_TRUE(velfsGetFullName(listing.get(), &name));
    EXPECT_EQ(TakeText(name), "a//b/");
  }
}

TEST_F(NativeEnumTest, P4_3_06_ResetAfterEndListsAgainInSameOrder) {
  std::filesystem::create_directories(PathOf("d/sub1"));
  std::filesystem::create_directories(PathOf("d/sub2"));
  for (const char* name : {"d/a.txt", "d/b.txt", "d/c", "d/.dot"}) WriteHostFile(PathOf(name), "");
  EnumPtr listing = List("d/");
  ASSERT_NE(listing, nullptr);
  const std::vector<Listed> first = ListRest(listing.get());
  ASSERT_EQ(first.size(), 6u);
  EXPECT_FALSE(velfsMoveNext(listing.get()));
  velfsReset(listing.get());
  char* name = kUntouched;
  EXPECT_FALSE(velfsGetName(listing.get(), &name));  // Fresh again: no current entry
  EXPECT_EQ(name, kUntouched);
  EXPECT_EQ(ListRest(listing.get()), first);
  // Reset in the middle starts over as well.
  velfsReset(listing.get());
  ASSERT_TRUE(velfsMoveNext(listing.get()));
  ASSERT_TRUE(velfsMoveNext(listing.get()));
  velfsReset(listing.get());
  EXPECT_EQ(ListRest(listing.get()), first);
}

TEST_F(NativeEnumTest, P4_3_07_GetNameWithNullOutputFails) {
  WriteHostFile(PathOf("f.txt"), "x");
  EnumPtr listing = List("");
  ASSERT_NE(listing, nullptr);
  ASSERT_TRUE(velfsMoveNext(listing.get()));
  EXPECT_FALSE(velfsGetName(listing.get(), nullptr));
  EXPECT_FALSE(velfsGetFullName(listing.get(), nullptr));
  // The back-end operation itself.
  auto* native = dynamic_cast<NativeEnum*>(&Record(listing.get())->enumerator());
  ASSERT_NE(native, nullptr);
  EXPECT_FALSE(native->GetName(nullptr));
  char* name = nullptr;
  EXPECT_TRUE(velfsGetName(listing.get(), &name));  // still on the entry
  EXPECT_EQ(TakeText(name), "f.txt");
}

// Windows' hidden and system attributes have no POSIX counterpart (left out); what stands for a
// hidden entry here, a name beginning with '.', is listed like any other.
TEST_F(NativeEnumTest, P4_3_08_HiddenEntriesAreListed) {
  WriteHostFile(PathOf(".hidden"), "h");
  std::filesystem::create_directory(PathOf(".hiddendir"));
  WriteHostFile(PathOf("visible"), "v");
  EnumPtr listing = List("");
  ASSERT_NE(listing, nullptr);
  EXPECT_EQ(Sorted(ListRest(listing.get())),
            (std::vector<Listed>{{".hidden", ".hidden", false},
                                 {".hiddendir", ".hiddendir/", true},
                                 {"visible", "visible", false}}));
}

// ---- From the issue. ----

TEST_F(NativeEnumTest, NativeNonAsciiNamesRoundTrip) {
  const std::string dirName = "Gr\xC3\xBC\xC3\x9F" "e";                      // Grüße
  const std::string fileName = "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E.txt";  // 日本語.txt
  const std::string emoji = "\xF0\x9F\x98\x80 smile.txt";                    // U+1F600
  {
    FilePtr file(velfsCreateFileIndir(dir_handle_.get(), (dirName + "/" + fileName).c_str(), 1));
    ASSERT_NE(file, nullptr);
    EXPECT_EQ(velfsWrite(file.get(), "nihongo", 7), 7u);
    FilePtr other(velfsCreateFileIndir(dir_handle_.get(), emoji.c_str(), 1));
    ASSERT_NE(other, nullptr);
    EXPECT_EQ(velfsWrite(other.get(), "smile", 5), 5u);
  }
  // The host holds the very same bytes as names.
  EXPECT_TRUE(IsDirectoryOnDisk(PathOf(dirName)));
  EXPECT_EQ(ReadHostFile(PathOf(dirName + "/" + fileName)), "nihongo");
  EXPECT_EQ(ReadHostFile(PathOf(emoji)), "smile");

  EnumPtr root = List("");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(Sorted(ListRest(root.get())),
            Sorted({{dirName, dirName + "/", true}, {emoji, emoji, false}}));
  EnumPtr inner = List((dirName + "/").c_str());
  ASSERT_NE(inner, nullptr);
  EXPECT_EQ(ListRest(inner.get()),
            (std::vector<Listed>{{fileName, dirName + "/" + fileName, false}}));

  bool exists = false;
  EXPECT_TRUE(velfsIsFileExist(dir_handle_.get(), (dirName + "/" + fileName).c_str(), &exists));
  EXPECT_TRUE(exists);
  FilePtr again(velfsCreateFileIndir(dir_handle_.get(), (dirName + "/" + fileName).c_str(), 0));
  ASSERT_NE(again, nullptr);
  char buffer[16] = {};
  EXPECT_EQ(velfsRead(again.get(), buffer, sizeof buffer), 7u);
  EXPECT_EQ(std::string(buffer, 7), "nihongo");
  FilePtr viaFullPath(velfsCreateFile(PathOf(emoji).c_str(), 0));
  ASSERT_NE(viaFullPath, nullptr);
  EXPECT_EQ(velfsRead(viaFullPath.get(), buffer, sizeof buffer), 5u);
  EXPECT_EQ(std::string(buffer, 5), "smile");
}

TEST_F(NativeEnumTest, NativeTenThousandFilesListedExactlyOnce) {
  constexpr int kCount = 10000;
  std::filesystem::create_directory(PathOf("many"));
  // One file, and 9,999 more names of it made with link(): each is an entry of its own in the
  // directory, which is what the listing reads, and links cost far less than new inodes (a file
  // system without hard links gets new files).
  std::set<std::string> expected;
  char name[32];
  const std::string first = PathOf("many/file00000.dat");
  ASSERT_TRUE(TouchHostFile(first));
  expected.insert("file00000.dat");
  for (int i = 1; i < kCount; ++i) {
    std::snprintf(name, sizeof name, "file%05d.dat", i);
    expected.insert(name);
    const std::string path = PathOf("many/") + name;
    if (::link(first.c_str(), path.c_str()) != 0) {
      ASSERT_TRUE(TouchHostFile(path)) << name;
    }
  }
  EnumPtr listing = List("many/");
  ASSERT_NE(listing, nullptr);
  std::set<std::string> seen;
  int steps = 0;
  while (velfsMoveNext(listing.get())) {
    ++steps;
    char* text = nullptr;
    ASSERT_TRUE(velfsGetName(listing.get(), &text));
    EXPECT_TRUE(seen.insert(TakeText(text)).second) << "listed twice";
    EXPECT_FALSE(velfsIsDirectory(listing.get()));
  }
  EXPECT_EQ(steps, kCount);
  EXPECT_EQ(seen.size(), static_cast<std::size_t>(kCount));
  EXPECT_EQ(seen, expected);
}

TEST_F(NativeEnumTest, NativeDirectoryRemovedBeforeFirstMoveNext) {
  std::filesystem::create_directory(PathOf("gone"));
  WriteHostFile(PathOf("gone/f.txt"), "x");
  EnumPtr listing = List("gone/");
  ASSERT_NE(listing, nullptr);  // Open only checks that the directory exists
  std::filesystem::remove_all(PathOf("gone"));
  EXPECT_FALSE(velfsMoveNext(listing.get()));
  char* name = kUntouched;
  EXPECT_FALSE(velfsGetName(listing.get(), &name));
  EXPECT_EQ(name, kUntouched);
  EXPECT_FALSE(velfsMoveNext(listing.get()));  // Exhausted stays exhausted
}

TEST_F(NativeEnumTest, NativeSymbolicLinkToDirectoryIsADirectory) {
  std::filesystem::create_directory(PathOf("target"));
  WriteHostFile(PathOf("target/inside.txt"), "in");
  WriteHostFile(PathOf("file.txt"), "f");
  ASSERT_EQ(::symlink(PathOf("target").c_str(), PathOf("link").c_str()), 0);
  ASSERT_EQ(::symlink(PathOf("file.txt").c_str(), PathOf("filelink").c_str()), 0);

  EnumPtr root = List("");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(Sorted(ListRest(root.get())),
            (std::vector<Listed>{{"file.txt", "file.txt", false},
                                 {"filelink", "filelink", false},
                                 {"link", "link/", true},
                                 {"target", "target/", true}}));

  bool exists = false;
  EXPECT_TRUE(velfsIsDirectoryExist(dir_handle_.get(), "link", &exists));
  EXPECT_TRUE(exists);
  exists = true;
  EXPECT_TRUE(velfsIsFileExist(dir_handle_.get(), "link", &exists));
  EXPECT_FALSE(exists);

  EnumPtr through = List("link/");  // listed through the link
  ASSERT_NE(through, nullptr);
  EXPECT_EQ(ListRest(through.get()),
            (std::vector<Listed>{{"inside.txt", "link/inside.txt", false}}));
}

}  // namespace
}  // namespace velfs::testing
