// Helpers of the archive back-end's tests (archive_*_test.cc): a scratch-directory fixture that
// writes ZIP files with libzip (zip_fixture.h), owning wrappers of the exported handles, and
// readers that collect a member's bytes or a listing's entries.
#ifndef VELFS_TESTS_ARCHIVE_TEST_SUPPORT_H
#define VELFS_TESTS_ARCHIVE_TEST_SUPPORT_H

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "archive/archive_storage.h"
#include "core/handle_records.h"
#include "core/storage.h"
#include "handle_support.h"
#include "test_support.h"
#include "velfs.h"
#include "zip_fixture.h"

namespace velfs::testing::archivetest {

// Reads `file` from its current position to its end in pieces of `piece` bytes. A read that
// answers more than asked (the all-ones failure count, say) stops the loop and fails the test.
inline std::string ReadRest(StorageFile& file, std::size_t piece = 4096) {
  std::string content;
  std::vector<char> buffer(piece);
  for (;;) {
    const uint64_t got = file.Read(buffer.data(), buffer.size());
    if (got == 0) break;
    if (got > buffer.size()) {
      ADD_FAILURE() << "Read answered " << got << " for a request of " << buffer.size();
      break;
    }
    content.append(buffer.data(), static_cast<std::size_t>(got));
  }
  return content;
}

inline std::string ReadRest(FileHandle* file, std::size_t piece = 4096) {
  std::string content;
  std::vector<char> buffer(piece);
  for (;;) {
    const uint64_t got = velfsRead(file, buffer.data(), buffer.size());
    if (got == 0) break;
    if (got > buffer.size()) {
      ADD_FAILURE() << "velfsRead answered " << got << " for a request of " << buffer.size();
      break;
    }
    content.append(buffer.data(), static_cast<std::size_t>(got));
  }
  return content;
}

// A scratch directory in which ZIP fixtures are written.
class ArchiveTest : public ScratchDirTest {
 protected:
  // Writes the archive `name` in the scratch directory and answers its path. A fixture that
  // libzip could not write as asked has already failed the test.
  std::string MakeZip(const std::string& name, const std::vector<ZipMember>& members) {
    const std::string path = PathOf(name);
    EXPECT_TRUE(WriteZip(path, members)) << name;
    return path;
  }

  // Part 5.2's opening function, straight.
  static std::unique_ptr<Storage> OpenArchive(const std::string& path) {
    return ArchiveStorage::Open(path.c_str());
  }

  // The member's whole content, read through a new ArchiveFile (mode 0).
  static std::string ReadMember(Storage& storage, const char* path) {
    std::unique_ptr<StorageFile> file = storage.CreateFile(path, 0);
    if (file == nullptr) {
      ADD_FAILURE() << "cannot open member " << path;
      return std::string();
    }
    return ReadRest(*file);
  }

  static std::vector<Listed> List(Storage& storage, const char* path) {
    std::unique_ptr<StorageEnum> listing = storage.CreateEnum(path);
    if (listing == nullptr) {
      ADD_FAILURE() << "CreateEnum(" << path << ") answered null";
      return {};
    }
    return ListRest(*listing);
  }
};

}  // namespace velfs::testing::archivetest

#endif  // VELFS_TESTS_ARCHIVE_TEST_SUPPORT_H
