#include "process.h"

#include <fcntl.h>
#include <limits.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>

extern char** environ;

namespace velfs_test {

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments) {
  int toChild[2], fromChild[2];
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
  if (posix_spawn(&pid_, program.c_str(), &actions, nullptr, argv.data(), environ) != 0) pid_ = -1;
  posix_spawn_file_actions_destroy(&actions);
  ::close(toChild[0]);
  ::close(fromChild[1]);
  input_ = toChild[1];
  output_ = fromChild[0];
}

ChildProcess::~ChildProcess() {
  Kill();
  WaitKilled();
  ::close(input_);
  ::close(output_);
}

bool ChildProcess::Send(const std::string& bytes) {
  return ::write(input_, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size());
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

void ChildProcess::Kill() {
  if (running()) ::kill(pid_, SIGKILL);
}

bool ChildProcess::WaitKilled() {
  if (pid_ > 0 && !reaped_) {
    while (::waitpid(pid_, &status_, 0) < 0 && errno == EINTR) {
    }
    reaped_ = true;
  }
  return WIFSIGNALED(status_) && WTERMSIG(status_) == SIGKILL;
}

std::map<int, std::string> OpenDescriptors() {
  std::map<int, std::string> descriptors;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    char target[PATH_MAX + 1];
    const ssize_t length = ::readlink(entry.path().c_str(), target, PATH_MAX);
    if (length < 0) continue;  // the directory listing's own descriptor, closed meanwhile
    descriptors[std::stoi(entry.path().filename().string())] =
        std::string(target, static_cast<std::size_t>(length));
  }
  return descriptors;
}

std::vector<std::string> FileMappings() {
  std::vector<std::string> mappings;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    if (line.find('/') != std::string::npos) mappings.push_back(line.substr(line.find(' ') + 1));
  }
  std::sort(mappings.begin(), mappings.end());
  return mappings;
}

}  // namespace velfs_test
