// The POSIX side of the reliability tests: a child program on two pipes, and what the process
// holds open (descriptors, file mappings) as /proc shows it.
#ifndef VELFS_TESTS_RELIABILITY_PROCESS_H
#define VELFS_TESTS_RELIABILITY_PROCESS_H

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

namespace velfs_test {

// A program started with posix_spawn, its stdin and stdout pipes to the test. The destructor
// kills a child still running (SIGKILL), reaps it and closes both pipes.
class ChildProcess {
 public:
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool running() const { return pid_ > 0 && !reaped_; }
  bool Send(const std::string& bytes);
  // Up to `count` bytes of the child's stdout, fewer only at its end.
  std::string Receive(std::size_t count);
  void Kill();
  // True when the child was ended by SIGKILL.
  bool WaitKilled();

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  int input_ = -1;
  int output_ = -1;
};

// Descriptor number -> what it refers to.
std::map<int, std::string> OpenDescriptors();
// The file mappings of the process without their addresses, sorted.
std::vector<std::string> FileMappings();

}  // namespace velfs_test

#endif  // VELFS_TESTS_RELIABILITY_PROCESS_H
