// ChildProcess (child_process.h).
#include "child_process.h"

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

namespace velfs::reliability {

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments) {
  int toChild[2];
  int fromChild[2];
  if (::pipe2(toChild, O_CLOEXEC) != 0) return;
  if (::pipe2(fromChild, O_CLOEXEC) != 0) {
    ::close(toChild[0]);
    ::close(toChild[1]);
    return;
  }
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, fromChild[1], STDOUT_FILENO);
  std::vector<std::string> words{program};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) {
    pid_ = -1;
  }
  posix_spawn_file_actions_destroy(&actions);
  ::close(toChild[0]);
  ::close(fromChild[1]);
  input_ = toChild[1];
  output_ = fromChild[0];
}

ChildProcess::~ChildProcess() {
  if (running()) {
    Kill(SIGKILL);
    Wait();
  }
  if (input_ >= 0) ::close(input_);
  if (output_ >= 0) ::close(output_);
}

bool ChildProcess::Send(const std::string& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    const ssize_t count = ::write(input_, bytes.data() + sent, bytes.size() - sent);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return false;
    sent += static_cast<std::size_t>(count);
  }
  return true;
}

std::string ChildProcess::Receive(std::size_t count) {
  std::string bytes(count, '\0');
  std::size_t received = 0;
  while (received < count) {
    const ssize_t got = ::read(output_, bytes.data() + received, count - received);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    received += static_cast<std::size_t>(got);
  }
  bytes.resize(received);
  return bytes;
}

std::string ChildProcess::ReceiveAll() {
  std::string all;
  char buffer[4096];
  for (;;) {
    const ssize_t got = ::read(output_, buffer, sizeof buffer);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    all.append(buffer, static_cast<std::size_t>(got));
  }
  return all;
}

void ChildProcess::Kill(int signal) {
  if (running()) ::kill(pid_, signal);
}

int ChildProcess::Wait() {
  if (pid_ <= 0) return -1;
  if (!reaped_) {
    while (::waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
    }
    reaped_ = true;
  }
  return status_;
}

}  // namespace velfs::reliability
