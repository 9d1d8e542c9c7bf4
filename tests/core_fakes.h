// Test doubles for the core (Parts 1.1 to 1.4): storages, files and listings that record what is
// asked of them and when they are destroyed, so that the tests can see which storage operation an
// exported function called, with which path, and in which order the close functions destroy the
// objects of a handle. Also a scoped change of the current directory for the Parts' relative
// paths ("C:" tried as the relative path C).
#ifndef VELFS_TESTS_CORE_FAKES_H
#define VELFS_TESTS_CORE_FAKES_H

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/handle_records.h"
#include "core/storage.h"

namespace velfs::testing::corefakes {

// What the fakes saw, in order: destructions ("~file", "~enum", "~storage ...") and calls.
struct EventLog {
  std::vector<std::string> events;
};

// A file whose Error answers a chosen value. Write and Resize keep the shared not-supported
// answer of Part 1.1 (as an archive or native file does for Resize).
class FakeFile final : public StorageFile {
 public:
  explicit FakeFile(EventLog* log, int32_t error = 0) : log_(log), error_(error) {}
  ~FakeFile() override {
    if (log_ != nullptr) log_->events.push_back("~file");
  }
  uint64_t Read(void*, uint64_t size) override { return size; }
  int32_t Tell() override { return 17; }
  int32_t Seek(int32_t offset, int32_t) override { return offset; }
  int32_t Error() override { return error_; }

 private:
  EventLog* log_;
  int32_t error_;
};

class FakeEnum final : public StorageEnum {
 public:
  explicit FakeEnum(EventLog* log) : log_(log) {}
  ~FakeEnum() override {
    if (log_ != nullptr) log_->events.push_back("~enum");
  }
  bool MoveNext() override { return true; }
  void Reset() override {}
  bool GetName(char**) override { return false; }
  bool GetFullName(char**) override { return false; }
  bool IsDirectory() override { return false; }

 private:
  EventLog* log_;
};

// Implements every operation of Storage and records each call with its (already normalised)
// path arguments. Its destructor logs whether the directory record that owns it is still alive
// (it reads the record's rootPath, which AddressSanitizer would report if the record were freed).
class RecordingStorage final : public Storage {
 public:
  explicit RecordingStorage(EventLog* log) : log_(log) {}
  ~RecordingStorage() override {
    if (log_ != nullptr) {
      log_->events.push_back(owner_ == nullptr ? "~storage" : "~storage of " + owner_->rootPath);
    }
  }
  void SetOwner(const DirHandle* owner) { owner_ = owner; }

  std::unique_ptr<StorageFile> CreateFile(const char* path, uint32_t mode) override {
    calls.push_back("CreateFile " + std::string(path) + " " + std::to_string(mode));
    return std::make_unique<FakeFile>(log_);
  }
  std::unique_ptr<StorageEnum> CreateEnum(const char* path) override {
    calls.push_back("CreateEnum " + std::string(path));
    return std::make_unique<FakeEnum>(log_);
  }
  bool IsFileExist(const char* path, bool* exists) override {
    calls.push_back("IsFileExist " + std::string(path));
    *exists = existsAnswer;
    return true;
  }
  bool IsDirectoryExist(const char* path, bool* exists) override {
    calls.push_back("IsDirectoryExist " + std::string(path));
    *exists = existsAnswer;
    return true;
  }
  bool DeleteDirectory(const char* path) override {
    calls.push_back("DeleteDirectory " + std::string(path));
    return true;
  }
  bool DeleteFile(const char* path) override {
    calls.push_back("DeleteFile " + std::string(path));
    return true;
  }
  bool RenameFile(const char* oldPath, const char* newPath) override {
    calls.push_back("RenameFile " + std::string(oldPath) + " " + newPath);
    return true;
  }
  bool CopyFile(const char* source, const char* target, bool failIfExists) override {
    calls.push_back("CopyFile " + std::string(source) + " " + target + " " +
                    (failIfExists ? "1" : "0"));
    return true;
  }
  bool MoveFile(const char* source, const char* target, bool failIfExists) override {
    calls.push_back("MoveFile " + std::string(source) + " " + target + " " +
                    (failIfExists ? "1" : "0"));
    return true;
  }
  bool BeginTrans() override {
    calls.push_back("BeginTrans");
    return true;
  }
  bool CommitTrans() override {
    calls.push_back("CommitTrans");
    return true;
  }

  std::vector<std::string> calls;
  bool existsAnswer = true;

 private:
  EventLog* log_;
  const DirHandle* owner_ = nullptr;
};

// Implements only what every back-end must (the four pure operations), as the native and archive
// storages do; everything else is the shared not-supported answer of Part 1.1.
class MinimalStorage final : public Storage {
 public:
  std::unique_ptr<StorageFile> CreateFile(const char*, uint32_t) override {
    return std::make_unique<FakeFile>(nullptr);
  }
  std::unique_ptr<StorageEnum> CreateEnum(const char*) override {
    return std::make_unique<FakeEnum>(nullptr);
  }
  bool IsFileExist(const char*, bool* exists) override {
    *exists = false;
    return true;
  }
  bool IsDirectoryExist(const char*, bool* exists) override {
    *exists = false;
    return true;
  }
};

// A DirHandle built by hand around a test storage; velfsCloseDir frees it like a real one.
inline DirHandle* NewDirHandle(const std::string& rootPath, std::unique_ptr<Storage> storage) {
  auto* handle = new DirHandle;
  handle->rootPath = rootPath;
  handle->storage = std::move(storage);
  return handle;
}

// Changes the current directory for the lifetime of the object and restores the old one.
class ScopedCurrentDirectory {
 public:
  explicit ScopedCurrentDirectory(const std::filesystem::path& directory)
      : old_(std::filesystem::current_path()) {
    std::filesystem::current_path(directory);
  }
  ~ScopedCurrentDirectory() {
    std::error_code ignored;
    std::filesystem::current_path(old_, ignored);
  }
  ScopedCurrentDirectory(const ScopedCurrentDirectory&) = delete;
  ScopedCurrentDirectory& operator=(const ScopedCurrentDirectory&) = delete;

 private:
  std::filesystem::path old_;
};

}  // namespace velfs::testing::corefakes

#endif  // VELFS_TESTS_CORE_FAKES_H
