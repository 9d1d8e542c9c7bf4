// ChildProcess: a program started with posix_spawn whose stdin and stdout are pipes to the test
// (its stderr stays the test's). The destructor kills a child that is still running (SIGKILL),
// reaps it and closes both pipes.
#ifndef VELFS_TESTS_RELIABILITY_CHILD_PROCESS_H
#define VELFS_TESTS_RELIABILITY_CHILD_PROCESS_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace velfs::reliability {

class ChildProcess {
 public:
  // Starts `program` with `arguments` (argv[1] on); `running()` is false when it cannot start.
  ChildProcess(const std::string& program, const std::vector<std::string>& arguments);
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool running() const { return pid_ > 0 && !reaped_; }
  // Writes bytes to the child's stdin; true when all were written.
  bool Send(const std::string& bytes);
  // Reads up to `count` bytes from the child's stdout, fewer only at its end.
  std::string Receive(std::size_t count);
  // Reads the child's stdout to its end (the child exited or closed it).
  std::string ReceiveAll();
  void Kill(int signal);
  // Waits for the child to end and answers its wait status (as waitpid gives it).
  int Wait();

 private:
  pid_t pid_ = -1;
  bool reaped_ = false;
  int status_ = 0;
  int input_ = -1;   // our end of the child's stdin
  int output_ = -1;  // our end of the child's stdout
};

}  // namespace velfs::reliability

#endif  // VELFS_TESTS_RELIABILITY_CHILD_PROCESS_H
