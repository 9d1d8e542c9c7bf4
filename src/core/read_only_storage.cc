// The read-only view of a storage: reads pass through, every change keeps the not-supported
// answer of storage.cc.
#include "core/read_only_storage.h"

#include <utility>

namespace velfs {
namespace {

class ReadOnlyFile final : public StorageFile {
 public:
  explicit ReadOnlyFile(std::unique_ptr<StorageFile> file) : file_(std::move(file)) {}

  uint64_t Read(void* buffer, uint64_t size) override { return file_->Read(buffer, size); }
  int32_t Tell() override { return file_->Tell(); }
  int32_t Seek(int32_t offset, int32_t origin) override { return file_->Seek(offset, origin); }
  int32_t Error() override { return file_->Error(); }

 private:
  const std::unique_ptr<StorageFile> file_;
};

class ReadOnlyStorage final : public Storage {
 public:
  explicit ReadOnlyStorage(std::unique_ptr<Storage> storage) : storage_(std::move(storage)) {}

  // Every mode but 0 creates, empties or writes the file ("wb", "ab", "rb+", "wb+", "ab+").
  std::unique_ptr<StorageFile> CreateFile(const char* path, uint32_t mode) override {
    if (mode != 0) return nullptr;
    auto file = storage_->CreateFile(path, mode);
    if (!file) return nullptr;
    return std::make_unique<ReadOnlyFile>(std::move(file));
  }
  std::unique_ptr<StorageEnum> CreateEnum(const char* path) override {
    return storage_->CreateEnum(path);
  }
  bool IsFileExist(const char* path, bool* exists) override {
    return storage_->IsFileExist(path, exists);
  }
  bool IsDirectoryExist(const char* path, bool* exists) override {
    return storage_->IsDirectoryExist(path, exists);
  }

 private:
  const std::unique_ptr<Storage> storage_;
};

}  // namespace

std::unique_ptr<Storage> MakeReadOnly(std::unique_ptr<Storage> storage) {
  if (!storage) return nullptr;
  return std::make_unique<ReadOnlyStorage>(std::move(storage));
}

}  // namespace velfs
