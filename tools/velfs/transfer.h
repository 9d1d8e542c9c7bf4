// Transfer: the one copy loop of the tool. Bytes move from a ByteSource to a ByteSink through
// one buffer of kChunkBytes, so a copy takes the same memory whatever the file's size.
#ifndef VELFS_TOOLS_TRANSFER_H
#define VELFS_TOOLS_TRANSFER_H

#include <cstdint>
#include <optional>
#include <string>

#include "byte_sink.h"
#include "byte_source.h"
#include "progress.h"

namespace velfs::tool {

class Transfer {
 public:
  static constexpr uint64_t kChunkBytes = uint64_t{16} << 20;

  // Copies the whole source. With `size`, exactly that many bytes must come and no more (a file
  // that shrinks or grows while it is copied is an error naming `shown`); without it, the source
  // is read to its end. Answers the number of bytes copied.
  static uint64_t Copy(ByteSource& source, ByteSink& sink, std::optional<uint64_t> size,
                       const std::string& shown, Progress* progress);
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_TRANSFER_H
