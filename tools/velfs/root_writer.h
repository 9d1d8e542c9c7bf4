// RootWriter: stores a stream of bytes as one file of a root, so that a failure leaves nothing
// half-written.
// - Database roots: the caller holds the root's transaction (Root::Begin) and commits only after
//   every file is stored. The file's row is made at its final size with velfsResize (a zero blob,
//   no buffer) and filled by in-place velfsWrite calls, chunk by chunk, so memory does
//   not grow with the file; an existing file is deleted first. A source of unknown size (standard
//   input) is spooled to a temporary host file first.
// - Directory roots: the bytes go to a temporary name beside the target through the library,
//   which is renamed over the target on the host when complete and removed on failure.
// - ZIP archives are read-only.
#ifndef VELFS_TOOLS_ROOT_WRITER_H
#define VELFS_TOOLS_ROOT_WRITER_H

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>

#include "byte_source.h"
#include "progress.h"
#include "root.h"

namespace velfs::tool {

class RootWriter {
 public:
  // The largest file that the API's signed 32-bit positions reach in a database root.
  static constexpr uint64_t kMaxDatabaseFile = std::numeric_limits<int32_t>::max();
  // SQLite's default largest value (SQLITE_MAX_LENGTH), which Debian's build keeps.
  static constexpr uint64_t kSqliteDefaultMaxLength = 1000000000;

  // Stores `source` (named `sourceShown` in messages; `size` when known) as file `inner`.
  // Throws ToolError.
  static void Store(Root& root, std::string_view inner, ByteSource& source,
                    std::optional<uint64_t> size, const std::string& sourceShown,
                    Progress* progress);

  // Store for one file on its own: in a database root inside a transaction of its own, committed
  // when the file is complete.
  static void StoreAndCommit(Root& root, std::string_view inner, ByteSource& source,
                             std::optional<uint64_t> size, const std::string& sourceShown);

  // Throws ToolError when a file of `size` bytes cannot go into a database root at all.
  static void CheckDatabaseSize(const std::string& shown, uint64_t size);

 private:
  static void StoreInDatabase(Root& root, const std::string& inner, ByteSource& source,
                              uint64_t size, const std::string& sourceShown, Progress* progress);
  static void StoreInDirectory(Root& root, const std::string& inner, ByteSource& source,
                               std::optional<uint64_t> size, const std::string& sourceShown,
                               Progress* progress);
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_ROOT_WRITER_H
