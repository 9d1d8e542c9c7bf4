// Transfer: read a chunk, write it, until the size or the end of the source is reached.
#include "transfer.h"

#include <algorithm>
#include <vector>

#include "tool_error.h"

namespace velfs::tool {

uint64_t Transfer::Copy(ByteSource& source, ByteSink& sink, std::optional<uint64_t> size,
                        const std::string& shown, Progress* progress) {
  std::vector<char> buffer(kChunkBytes);
  uint64_t copied = 0;
  for (;;) {
    const uint64_t wanted = size ? std::min(kChunkBytes, *size - copied) : kChunkBytes;
    if (wanted == 0) break;
    const uint64_t count = source.ReadSome(buffer.data(), wanted);
    if (count == 0) break;
    sink.WriteAll(buffer.data(), count);
    copied += count;
    if (progress != nullptr) progress->AddBytes(count);
  }
  if (size) {
    char extra = 0;
    if (copied < *size) {
      throw ToolError(shown, "reading stopped at byte " + std::to_string(copied) + " of " +
                                 std::to_string(*size) + " (the file changed or is damaged)");
    }
    if (source.ReadSome(&extra, 1) != 0) {
      throw ToolError(shown, "the file grew while it was copied (expected " +
                                 std::to_string(*size) + " bytes)");
    }
  }
  return copied;
}

}  // namespace velfs::tool
