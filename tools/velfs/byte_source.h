// ByteSource: where a copy reads its bytes (a host file, standard input, a file of a root).
#ifndef VELFS_TOOLS_BYTE_SOURCE_H
#define VELFS_TOOLS_BYTE_SOURCE_H

#include <cstdint>

namespace velfs::tool {

class ByteSource {
 public:
  virtual ~ByteSource() = default;
  // Reads up to `size` bytes; 0 at the end. Throws ToolError when reading fails.
  virtual uint64_t ReadSome(char* buffer, uint64_t size) = 0;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_BYTE_SOURCE_H
