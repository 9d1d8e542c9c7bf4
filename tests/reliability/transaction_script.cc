// The transactions of the reliability tests (transaction_script.h).
#include "transaction_script.h"

#include <algorithm>

namespace velfs::reliability {
namespace {

constexpr uint32_t kMaxData = 150000;
constexpr std::size_t kWriteChunk = 40000;

std::string Directory(uint32_t index) { return "t" + std::to_string(index) + "/"; }
std::string Moved(uint32_t index) { return "moved/" + std::to_string(index) + ".txt"; }
std::string NoteOf(uint32_t index) { return "transaction " + std::to_string(index); }

bool WriteFile(DirHandle* dir, const std::string& path, const std::string& content) {
  FileHandle* file = velfsCreateFileIndir(dir, path.c_str(), 1);
  if (file == nullptr) return false;
  bool written = true;
  for (std::size_t at = 0; at < content.size() && written; at += kWriteChunk) {
    const std::size_t count = std::min(kWriteChunk, content.size() - at);
    written = velfsWrite(file, content.data() + at, count) == count;
  }
  velfsCloseFile(file);
  return written;
}

bool ReplaceFile(DirHandle* dir, const std::string& path, const std::string& content) {
  FileHandle* file = velfsCreateFileIndir(dir, path.c_str(), 1);
  if (file == nullptr) return false;
  const bool replaced = velfsResize(file, 0) &&
                        velfsWrite(file, content.data(), content.size()) == content.size();
  velfsCloseFile(file);
  return replaced;
}

}  // namespace

std::string DataOf(uint32_t index) {
  const std::size_t length = 1 + (static_cast<std::size_t>(index) * 7919) % kMaxData;
  std::string data(length, '\0');
  uint32_t state = 0x9E3779B9u ^ index;
  for (char& c : data) {
    state ^= state << 13;
    state ^= state >> 17;
    state ^= state << 5;
    c = static_cast<char>(state);
  }
  return data;
}

bool RunTransaction(DirHandle* dir, uint32_t index) {
  const std::string directory = Directory(index);
  bool ok = velfsBeginTrans(dir);
  ok = ok && WriteFile(dir, directory + "data.bin", DataOf(index));
  ok = ok && WriteFile(dir, directory + "note.txt", NoteOf(index));
  ok = ok && velfsCopyFile(dir, (directory + "note.txt").c_str(), (directory + "copy.txt").c_str(),
                           true);
  ok = ok && velfsRenameFile(dir, (directory + "copy.txt").c_str(),
                             (directory + "renamed.txt").c_str());
  ok = ok && velfsMoveFile(dir, (directory + "renamed.txt").c_str(), Moved(index).c_str(), true);
  ok = ok && ReplaceFile(dir, "counter.txt", std::to_string(index));
  if (index > kKeptTransactions) {
    ok = ok && velfsDeleteDirectory(dir, Directory(index - kKeptTransactions).c_str());
    ok = ok && velfsDeleteFile(dir, Moved(index - kKeptTransactions).c_str());
  }
  return velfsCommitTrans(dir) && ok;
}

std::map<std::string, std::string> StateAfter(uint32_t last) {
  std::map<std::string, std::string> rows;
  if (last == 0) return rows;
  rows["counter.txt"] = std::to_string(last);
  const uint32_t first = last > kKeptTransactions ? last - kKeptTransactions + 1 : 1;
  for (uint32_t index = first; index <= last; ++index) {
    rows[Directory(index) + "data.bin"] = DataOf(index);
    rows[Directory(index) + "note.txt"] = NoteOf(index);
    rows[Moved(index)] = NoteOf(index);
  }
  return rows;
}

}  // namespace velfs::reliability
