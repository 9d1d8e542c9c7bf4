// ByteSink: where a copy writes its bytes (a host file, standard output, a file of a root).
#ifndef VELFS_TOOLS_BYTE_SINK_H
#define VELFS_TOOLS_BYTE_SINK_H

#include <cstdint>

namespace velfs::tool {

class ByteSink {
 public:
  virtual ~ByteSink() = default;
  // Writes all `size` bytes or throws ToolError.
  virtual void WriteAll(const char* buffer, uint64_t size) = 0;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_BYTE_SINK_H
