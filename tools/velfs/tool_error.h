// ToolError: one failed velfs command, and Problems: the failures a command goes on past. The tool prints it as "velfs: SUBJECT: CAUSE" (or
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
  // A failure because another program holds a lock on the database: running the command again
  // later may succeed (main.cc does, within --wait).
  bool Locked() const { return locked_; }
  ToolError& MarkLocked() {
    locked_ = true;
    return *this;
  }
  // Writes "velfs: MESSAGE" and a newline to standard error, after what standard output holds.
  void Print() const {
    std::fflush(stdout);
    std::fprintf(stderr, "velfs: %s\n", what());
  }

 private:
  std::string cause_;
  int status_;
  bool locked_ = false;
};

// What a command reports and goes on past (an entry it cannot list, read or place): each
// problem is printed at once as "velfs: SUBJECT: CAUSE", and the command ends with status 1 when
// there was any. A warning is printed the same way and does not change the status.
class Problems {
 public:
  void Report(const std::string& subject, const std::string& cause) {
    ToolError(subject, cause).Print();
    ++count_;
  }
  static void Warn(const std::string& subject, const std::string& cause) {
    ToolError(subject, cause).Print();
  }
  int Count() const { return count_; }
  int Status() const { return count_ == 0 ? 0 : ToolError::kFailure; }

 private:
  int count_ = 0;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_TOOL_ERROR_H
