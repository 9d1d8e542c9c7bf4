// Helpers shared by the back-ends' tests: owning wrappers of the exported handles and readers
// that collect a listing's entries, through a StorageEnum or through the exported functions.
#ifndef VELFS_TESTS_HANDLE_SUPPORT_H
#define VELFS_TESTS_HANDLE_SUPPORT_H

#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "core/storage.h"
#include "velfs.h"

namespace velfs::testing {

// Owning handles. Declare a DirPtr before the FilePtr/EnumPtr made through it, so that the
// latter are closed first (Part 1.1, ownership rule 3).
struct DirCloser {
  void operator()(DirHandle* handle) const { velfsCloseDir(handle); }
};
struct FileCloser {
  void operator()(FileHandle* handle) const { velfsCloseFile(handle); }
};
struct EnumCloser {
  void operator()(EnumHandle* handle) const { velfsCloseEnum(handle); }
};
using DirPtr = std::unique_ptr<DirHandle, DirCloser>;
using FilePtr = std::unique_ptr<FileHandle, FileCloser>;
using EnumPtr = std::unique_ptr<EnumHandle, EnumCloser>;

// One entry of a listing as the enumerator reports it.
struct Listed {
  std::string name;
  std::string fullName;
  bool isDirectory = false;
  bool operator<(const Listed& other) const { return name < other.name; }
  bool operator==(const Listed& other) const {
    return name == other.name && fullName == other.fullName && isDirectory == other.isDirectory;
  }
};

inline std::ostream& operator<<(std::ostream& out, const Listed& entry) {
  return out << "{'" << entry.name << "', '" << entry.fullName << "', "
             << (entry.isDirectory ? "dir" : "file") << "}";
}

// Takes ownership of a text handed out by GetName/GetFullName and frees it.
inline std::string TakeText(char* text) {
  std::string copy = text == nullptr ? std::string() : std::string(text);
  std::free(text);
  return copy;
}

// Steps `listing` to its end from where it stands and collects every entry in listing order.
inline std::vector<Listed> ListRest(StorageEnum& listing) {
  std::vector<Listed> entries;
  while (listing.MoveNext()) {
    Listed entry;
    char* text = nullptr;
    EXPECT_TRUE(listing.GetName(&text));
    entry.name = TakeText(text);
    text = nullptr;
    EXPECT_TRUE(listing.GetFullName(&text));
    entry.fullName = TakeText(text);
    entry.isDirectory = listing.IsDirectory();
    entries.push_back(entry);
  }
  return entries;
}

// The same through the exported enumeration functions.
inline std::vector<Listed> ListRest(EnumHandle* listing) {
  std::vector<Listed> entries;
  while (velfsMoveNext(listing)) {
    Listed entry;
    char* text = nullptr;
    EXPECT_TRUE(velfsGetName(listing, &text));
    entry.name = TakeText(text);
    text = nullptr;
    EXPECT_TRUE(velfsGetFullName(listing, &text));
    entry.fullName = TakeText(text);
    entry.isDirectory = velfsIsDirectory(listing);
    entries.push_back(entry);
  }
  return entries;
}

}  // namespace velfs::testing

#endif  // VELFS_TESTS_HANDLE_SUPPORT_H
