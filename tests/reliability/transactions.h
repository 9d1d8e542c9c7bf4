// The transactions that the crash test's writer runs and the test checks, one after another on a
// database root. Transaction i writes t<i>/data.bin (up to 150,000 bytes, in growing writes),
// replaces counter.txt by the decimal i (a resize to 0, then a write), copies data.bin to
// copy.bin and deletes the directory of transaction i-4: the files of the last four stay.
#ifndef VELFS_TESTS_RELIABILITY_TRANSACTIONS_H
#define VELFS_TESTS_RELIABILITY_TRANSACTIONS_H

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>

#include "velfs.h"

namespace velfs_test {

inline std::string DataOf(uint32_t index) {
  std::string data(1 + (static_cast<std::size_t>(index) * 7919) % 150000, '\0');
  uint32_t state = 0x9E3779B9u ^ index;
  for (char& c : data) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    c = static_cast<char>(state);
  }
  return data;
}

inline std::string DirectoryOf(uint32_t index) { return "t" + std::to_string(index) + "/"; }

inline bool RunTransaction(DirHandle* dir, uint32_t index) {
  const std::string data = DataOf(index), directory = DirectoryOf(index);
  bool ok = velfsBeginTrans(dir);
  FileHandle* file = velfsCreateFileIndir(dir, (directory + "data.bin").c_str(), 1);
  for (std::size_t at = 0; ok && at < data.size(); at += 40000) {
    const std::size_t count = std::min<std::size_t>(40000, data.size() - at);
    ok = velfsWrite(file, data.data() + at, count) == count;
  }
  velfsCloseFile(file);
  const std::string counter = std::to_string(index);
  file = velfsCreateFileIndir(dir, "counter.txt", 1);
  ok = ok && velfsResize(file, 0) && velfsWrite(file, counter.data(), counter.size()) ==
                                         counter.size();
  velfsCloseFile(file);
  ok = ok && velfsCopyFile(dir, (directory + "data.bin").c_str(),
                           (directory + "copy.bin").c_str(), true);
  if (index > 4) ok = ok && velfsDeleteDirectory(dir, DirectoryOf(index - 4).c_str());
  return velfsCommitTrans(dir) && ok;
}

// The rows after transactions 1 to `last`: Path followed by FileName -> Content.
inline std::map<std::string, std::string> StateAfter(uint32_t last) {
  std::map<std::string, std::string> rows;
  if (last > 0) rows["counter.txt"] = std::to_string(last);
  for (uint32_t index = last > 4 ? last - 3 : 1; index <= last; ++index) {
    rows[DirectoryOf(index) + "data.bin"] = rows[DirectoryOf(index) + "copy.bin"] = DataOf(index);
  }
  return rows;
}

}  // namespace velfs_test

#endif  // VELFS_TESTS_RELIABILITY_TRANSACTIONS_H
