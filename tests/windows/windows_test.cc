// What is particular to the library on Windows, through the exported API of velfs.dll: full
// paths with a drive letter and with backslashes, mount names against drive letters, the case
// of host names, host names outside ASCII (UTF-8 in the API, UTF-16 on disk), and the share
// mode that keeps a mapped archive readable but not replaceable.
#ifndef WIN32_LEAN_AND_MEAN
#define WIN32_LEAN_AND_MEAN
#endif
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "support.h"

namespace velfs_test {
namespace {

std::wstring Wide(const std::string& utf8) { return std::filesystem::u8path(utf8).wstring(); }

std::string Backslashed(std::string path) {
  std::replace(path.begin(), path.end(), '/', '\\');
  return path;
}

bool WriteThroughFullPath(const std::string& fullPath, const std::string& bytes) {
  return WriteAndClose(velfsCreateFile(fullPath.c_str(), 1), bytes);
}

class WindowsPathTest : public ScratchTest {};

// A full path with a drive letter is cut at its last ':' when it names no host entry, at its
// last '/' when it does; the drive's ':' is not special. Every file of every kind of root is
// read back through its full path with '\\' (the contract test reads them with '/').
TEST_F(WindowsPathTest, DriveLetterFullPathsReachEveryKindOfRoot) {
  for (const auto& [kind, root] : {std::pair{RootKind::kDirectory, PathOf("tree") + "/"},
                                   std::pair{RootKind::kArchive, PathOf("pack.zip") + ":"},
                                   std::pair{RootKind::kDatabase, PathOf("store.db") + ":"}}) {
    BuildSampleRoot(kind, root.substr(0, root.size() - 1));
    for (const auto& [name, content] : SampleTree()) {
      EXPECT_EQ(ReadFullPath(Backslashed(root + name)), content) << root << name;
    }
  }
  EXPECT_EQ(ReadFullPath(Backslashed(PathOf("pack.zip") + ":docs/missing.txt")), "<absent>");
  // Written with either separator, a row lands in the database named before the last ':'.
  ASSERT_TRUE(WriteThroughFullPath(PathOf("new.db") + ":docs/a.txt", "hello"));
  ASSERT_TRUE(WriteThroughFullPath(Backslashed(PathOf("new.db")) + ":docs\\b.txt", "world"));
  SecondConnection second(PathOf("new.db"));
  EXPECT_EQ(second.Content("a.txt", "docs/"), "hello");
  EXPECT_EQ(second.Content("b.txt", "docs/"), "world");
  EXPECT_EQ(second.RowCount(), 2);
}

// A host file that does not exist yet names no entry, so the full path is cut at the drive's
// ':': the root "C:" is tried as the relative path "C" in the current directory, which SQLite
// creates as a database, and the rest of the path becomes a row's key there. Nothing is created
// at the full path itself.
TEST_F(WindowsPathTest, MissingHostFileIsCutAtTheDriveLetter) {
  std::wstring previous(MAX_PATH, L'\0');
  previous.resize(GetCurrentDirectoryW(MAX_PATH, previous.data()));
  ASSERT_TRUE(SetCurrentDirectoryW(Wide(PathOf()).c_str()));
  const std::string missing = PathOf("new.txt");
  ASSERT_EQ(missing.substr(1, 2), ":/") << "the scratch folder is not on a drive";
  const bool written = WriteThroughFullPath(missing, "fresh");
  const std::string relativeRoot = PathOf(missing.substr(0, 1));  // "C" in the scratch folder
  ASSERT_TRUE(SetCurrentDirectoryW(previous.c_str()));

  EXPECT_TRUE(written);
  EXPECT_EQ(GetFileAttributesW(Wide(missing).c_str()), INVALID_FILE_ATTRIBUTES);
  SecondConnection second(relativeRoot);
  const std::string directory = PathOf().substr(2) + "/";  // without "C:"
  EXPECT_EQ(second.Content("new.txt", directory), "fresh") << directory;
  EXPECT_EQ(second.RowCount(), 1);
}

// A drive path read as a virtual path names the mount made of the letter and ':', so it maps
// only when such a name is mounted.
TEST_F(WindowsPathTest, DriveLetterIsAMountNameOnlyWhenMounted) {
  const std::string tree = PathOf("tree");
  ASSERT_TRUE(CreateDirectoryW(Wide(tree).c_str(), nullptr));
  const std::string drivePath = tree.substr(0, 2) + "/docs/a.txt";
  EXPECT_EQ(velFSVelToSyspath(drivePath.c_str(), nullptr, 0), 0u);

  const std::string mount = tree.substr(0, 2);  // "C:"
  velFSMountPath(mount.c_str(), (tree + "/").c_str());
  std::vector<char> buffer(512);
  const uint64_t length = velFSVelToSyspath(drivePath.c_str(), buffer.data(), buffer.size());
  velFSUnmountPath(mount.c_str());
  ASSERT_GT(length, 0u);
  const std::string mapped(buffer.data(), static_cast<std::size_t>(length));
  EXPECT_NE(mapped.find(tree.substr(2)), std::string::npos) << mapped;
  EXPECT_NE(mapped.find("docs/a.txt"), std::string::npos) << mapped;
  EXPECT_EQ(velFSVelToSyspath(drivePath.c_str(), nullptr, 0), 0u);
}

// Windows' file systems compare names without case: a directory root finds a file by any case
// of its name and lists it with the case it was created with.
TEST_F(WindowsPathTest, DirectoryRootNamesIgnoreCaseAndKeepTheStoredCase) {
  const std::string root = BuildSampleRoot(RootKind::kDirectory, PathOf("tree"));
  WriteHostFile(root + "/MixedCase.TXT", "mixed");
  DirHandle* dir = velfsOpenDir(root.c_str());
  ASSERT_NE(dir, nullptr);
  for (const char* name : {"readme.txt", "README.TXT", "ReadMe.Txt", "DOCS/A.TXT",
                           "mixedcase.txt"}) {
    EXPECT_EQ(Exists(dir, name), "yes") << name;
  }
  EXPECT_EQ(Exists(dir, "Docs/SUB", true), "yes");
  const std::map<std::string, bool> names = Listing(velfsCreateEnumIndir(dir, ""));
  velfsCloseDir(dir);
  EXPECT_EQ(names.count("MixedCase.TXT"), 1u);
  EXPECT_EQ(names.count("mixedcase.txt"), 0u);
  EXPECT_EQ(ReadFullPath(root + "/MIXEDCASE.txt"), "mixed");
}

// UTF-8 names of the API are UTF-16 names on disk, in both directions: a file created through
// the library is found by its wide name, and a file created by its wide name is listed in UTF-8.
TEST_F(WindowsPathTest, NonAsciiNamesAreUtf16OnDisk) {
  const std::string root = PathOf("r\xC3\xA9sum\xC3\xA9s");  // "résumés"
  ASSERT_TRUE(CreateDirectoryW(Wide(root).c_str(), nullptr));
  const std::string name = "\xE6\x97\xA5\xE6\x9C\xAC.txt";  // "日本.txt"
  DirHandle* dir = velfsOpenDir(root.c_str());
  ASSERT_NE(dir, nullptr);
  ASSERT_TRUE(WriteAndClose(velfsCreateFileIndir(dir, name.c_str(), 1), "kanji"));
  EXPECT_NE(GetFileAttributesW((Wide(root) + L"/\u65E5\u672C.txt").c_str()),
            INVALID_FILE_ATTRIBUTES);

  FILE* created = _wfopen((Wide(root) + L"/\u00FCber \U0001F600.txt").c_str(), L"wb");
  ASSERT_NE(created, nullptr);
  std::fputs("emoji", created);
  std::fclose(created);

  const std::map<std::string, bool> names = Listing(velfsCreateEnumIndir(dir, ""));
  velfsCloseDir(dir);
  const std::string emojiName = "\xC3\xBC" "ber \xF0\x9F\x98\x80.txt";
  const std::map<std::string, bool> expected = {{name, false}, {emojiName, false}};
  EXPECT_EQ(names, expected);
  EXPECT_EQ(ReadFullPath(root + "/" + emojiName), "emoji");
  EXPECT_EQ(ReadFullPath(root + "/" + name), "kanji");

  // A database and an archive under a non-ASCII directory open as roots too.
  ASSERT_TRUE(WriteThroughFullPath(root + "/d\xC3\xA9p\xC3\xB4t.db:" + name, "row"));
  EXPECT_NE(GetFileAttributesW((Wide(root) + L"/d\u00E9p\u00F4t.db").c_str()),
            INVALID_FILE_ATTRIBUTES);
  EXPECT_EQ(ReadFullPath(root + "/d\xC3\xA9p\xC3\xB4t.db:" + name), "row");
  BuildSampleRoot(RootKind::kArchive, root + "/archiv\xC3\xA9.zip");
  EXPECT_EQ(ReadFullPath(root + "/archiv\xC3\xA9.zip:docs/a.txt"), "0123456789");
}

// While a root keeps an archive mapped, the file is shared for reading only: others may read
// it, but nobody may open it for writing, delete it or replace it. Once the root and its last
// member are closed, all of that is possible again.
TEST_F(WindowsPathTest, MappedArchiveCanBeReadButNotReplaced) {
  const std::string archive = BuildSampleRoot(RootKind::kArchive, PathOf("pack.zip"));
  const std::wstring wide = Wide(archive);
  WriteHostFile(PathOf("other.zip"), "not an archive");
  const std::wstring other = Wide(PathOf("other.zip"));

  DirHandle* dir = velfsOpenDir(archive.c_str());
  ASSERT_NE(dir, nullptr);
  FileHandle* member = velfsCreateFileIndir(dir, "docs/a.txt", 0);
  ASSERT_NE(member, nullptr);
  velfsCloseDir(dir);  // the open member keeps the archive mapped

  HANDLE reader = CreateFileW(wide.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr,
                              OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  EXPECT_NE(reader, INVALID_HANDLE_VALUE);
  if (reader != INVALID_HANDLE_VALUE) CloseHandle(reader);
  EXPECT_EQ(ReadFullPath(archive + ":readme.txt"), "hello, world\n");

  const DWORD shareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
  HANDLE writer = CreateFileW(wide.c_str(), GENERIC_WRITE, shareAll, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
  EXPECT_EQ(writer, INVALID_HANDLE_VALUE);
  if (writer != INVALID_HANDLE_VALUE) CloseHandle(writer);
  EXPECT_EQ(GetLastError(), static_cast<DWORD>(ERROR_SHARING_VIOLATION));
  EXPECT_FALSE(DeleteFileW(wide.c_str()));
  EXPECT_FALSE(MoveFileExW(other.c_str(), wide.c_str(), MOVEFILE_REPLACE_EXISTING));
  EXPECT_EQ(ReadRest(member), "0123456789");

  velfsCloseFile(member);
  writer = CreateFileW(wide.c_str(), GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                       FILE_ATTRIBUTE_NORMAL, nullptr);
  EXPECT_NE(writer, INVALID_HANDLE_VALUE);
  if (writer != INVALID_HANDLE_VALUE) CloseHandle(writer);
  EXPECT_TRUE(MoveFileExW(other.c_str(), wide.c_str(), MOVEFILE_REPLACE_EXISTING));
}

}  // namespace
}  // namespace velfs_test
