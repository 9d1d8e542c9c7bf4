// ToolError: the message "SUBJECT: CAUSE" (or CAUSE alone) and the exit status of a failure.
#include "tool_error.h"

#include <cstdio>
#include <utility>

namespace velfs::tool {

namespace {

std::string Message(const std::string& subject, const std::string& cause) {
  return subject.empty() ? cause : subject + ": " + cause;
}

}  // namespace

ToolError::ToolError(std::string subject, std::string cause, int status)
    : std::runtime_error(Message(subject, cause)),
      subject_(std::move(subject)),
      cause_(std::move(cause)),
      status_(status) {}

void ToolError::Print() const {
  std::fflush(stdout);  // keep the order of what was printed before
  std::fprintf(stderr, "velfs: %s\n", what());
}

}  // namespace velfs::tool
