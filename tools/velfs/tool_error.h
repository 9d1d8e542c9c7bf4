// ToolError: one failed velfs command. The tool prints it as "velfs: SUBJECT: CAUSE" (or
// "velfs: CAUSE" without a subject) on standard error and exits with its status: 1 for a
// failure, 2 for a usage error.
#ifndef VELFS_TOOLS_TOOL_ERROR_H
#define VELFS_TOOLS_TOOL_ERROR_H

#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>

namespace velfs::tool {

class ToolError : public std::runtime_error {
 public:
  static constexpr int kFailure = 1;
  static constexpr int kUsage = 2;

  // `subject` is the path the failure is about (empty when there is none), `cause` what the
  // tool could establish about why.
  ToolError(std::string subject, std::string cause, int status = kFailure)
      : std::runtime_error(subject.empty() ? cause : subject + ": " + cause),
        cause_(std::move(cause)),
        status_(status) {}

  const std::string& Cause() const { return cause_; }
  int Status() const { return status_; }
  // Writes "velfs: MESSAGE" and a newline to standard error, after what standard output holds.
  void Print() const {
    std::fflush(stdout);
    std::fprintf(stderr, "velfs: %s\n", what());
  }

 private:
  std::string cause_;
  int status_;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_TOOL_ERROR_H
