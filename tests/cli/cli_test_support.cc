// Support of the velfs tool's tests: fork/exec with pipes and poll, forkpty, sqlite3, libzip.
#include "cli_test_support.h"

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>

#include "zip_fixture.h"

namespace velfs::testing {

namespace {

std::vector<char*> Argv(const std::vector<std::string>& args, std::vector<std::string>& storage) {
  storage.clear();
  storage.push_back(VELFS_TOOL_PATH);
  storage.insert(storage.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& arg : storage) argv.push_back(arg.data());
  argv.push_back(nullptr);
  return argv;
}

// In the child: into `cwd`, default SIGPIPE, then the tool.
[[noreturn]] void Exec(const std::string& cwd, std::vector<char*>& argv) {
  ::signal(SIGPIPE, SIG_DFL);
  if (::chdir(cwd.c_str()) == 0) ::execv(argv[0], argv.data());
  ::_exit(127);
}

void Finish(pid_t pid, ToolRun& run) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  if (WIFEXITED(status)) run.status = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) run.signal = WTERMSIG(status);
}

}  // namespace

ToolRun RunTool(const std::vector<std::string>& args, const std::string& cwd,
                const std::string& input, const char* output) {
  ToolRun run;
  int in[2], out[2], err[2];
  if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe2 failed";
    return run;
  }
  std::vector<std::string> storage;
  std::vector<char*> argv = Argv(args, storage);
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(in[0], 0);
    ::dup2(output == nullptr ? out[1] : ::open(output, O_WRONLY), 1);
    ::dup2(err[1], 2);
    Exec(cwd, argv);
  }
  ::close(in[0]);
  ::close(out[1]);
  ::close(err[1]);
  ::signal(SIGPIPE, SIG_IGN);  // the tool may end before it reads all of its input
  ::fcntl(in[1], F_SETFL, O_NONBLOCK);
  std::size_t written = 0;
  if (input.empty()) {
    ::close(in[1]);
    in[1] = -1;
  }
  char buffer[65536];
  for (;;) {
    pollfd fds[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {in[1], POLLOUT, 0}};
    if (out[0] < 0 && err[0] < 0) break;
    if (::poll(fds, 3, -1) < 0) {
      if (errno == EINTR) continue;
      break;
    }
    for (int i = 0; i < 2; ++i) {
      int& fd = i == 0 ? out[0] : err[0];
      if (fd >= 0 && (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count > 0) {
          (i == 0 ? run.out : run.err).append(buffer, static_cast<std::size_t>(count));
        } else {
          ::close(fd);
          fd = -1;
        }
      }
    }
    if (in[1] >= 0 && (fds[2].revents & (POLLOUT | POLLERR | POLLHUP)) != 0) {
      const ssize_t count = ::write(in[1], input.data() + written, input.size() - written);
      if (count > 0) written += static_cast<std::size_t>(count);
      if (count < 0 || written == input.size()) {
        ::close(in[1]);
        in[1] = -1;
      }
    }
  }
  if (in[1] >= 0) ::close(in[1]);
  Finish(pid, run);
  return run;
}

ToolRun RunToolOnTerminal(const std::vector<std::string>& args, const std::string& cwd) {
  ToolRun run;
  std::vector<std::string> storage;
  std::vector<char*> argv = Argv(args, storage);
  int terminal = -1;
  const pid_t pid = ::forkpty(&terminal, nullptr, nullptr, nullptr);
  if (pid < 0) {
    ADD_FAILURE() << "forkpty failed";
    return run;
  }
  if (pid == 0) Exec(cwd, argv);
  char buffer[4096];
  for (;;) {
    const ssize_t count = ::read(terminal, buffer, sizeof buffer);
    if (count > 0) {
      run.out.append(buffer, static_cast<std::size_t>(count));
    } else if (count < 0 && errno == EINTR) {
      continue;
    } else {
      break;  // EIO once the tool has closed the terminal
    }
  }
  ::close(terminal);
  Finish(pid, run);
  return run;
}

RunningTool::RunningTool(const std::vector<std::string>& args, const std::string& cwd) {
  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) {
    ADD_FAILURE() << "pipe2 failed";
    return;
  }
  std::vector<std::string> storage;
  std::vector<char*> argv = Argv(args, storage);
  pid_ = ::fork();
  if (pid_ == 0) {
    ::dup2(out[1], 1);
    Exec(cwd, argv);
  }
  ::close(out[1]);
  output_ = ::fdopen(out[0], "r");
}

RunningTool::~RunningTool() {
  if (pid_ > 0) KillAndWait(SIGKILL);
  if (output_ != nullptr) std::fclose(output_);
}

bool RunningTool::ReadLine(std::string* line) {
  line->clear();
  for (int c = std::fgetc(output_); c != EOF; c = std::fgetc(output_)) {
    if (c == '\n') return true;
    line->push_back(static_cast<char>(c));
  }
  return !line->empty();
}

int RunningTool::KillAndWait(int signal) {
  ::kill(pid_, signal);
  ToolRun run;
  Finish(pid_, run);
  pid_ = -1;
  return run.signal;
}

std::map<std::string, std::string> DatabaseRows(const std::string& path) {
  std::map<std::string, std::string> rows;
  sqlite3* db = nullptr;
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK &&
      sqlite3_prepare_v2(db, "SELECT Path, FileName, Content FROM FileStorage;", -1, &statement,
                         nullptr) == SQLITE_OK) {
    while (sqlite3_step(statement) == SQLITE_ROW) {
      const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, 2));
      const auto length = static_cast<std::size_t>(sqlite3_column_bytes(statement, 2));
      rows[std::string(reinterpret_cast<const char*>(sqlite3_column_text(statement, 0))) +
           reinterpret_cast<const char*>(sqlite3_column_text(statement, 1))] =
          bytes == nullptr ? std::string() : std::string(bytes, length);
    }
  } else {
    ADD_FAILURE() << "cannot read the rows of " << path << ": " << sqlite3_errmsg(db);
  }
  sqlite3_finalize(statement);
  sqlite3_close(db);
  return rows;
}

void MakeDatabase(const std::string& path, const std::map<std::string, std::string>& files) {
  SecondConnection connection(path);
  ASSERT_TRUE(connection.Exec(
      "create table if not exists FileStorage (FileName text, Path text, Content blob, "
      "Info blob, primary key(FileName, Path));"));
  for (const auto& [file, bytes] : files) {
    const std::size_t slash = file.rfind('/');
    const std::string directory = slash == std::string::npos ? "" : file.substr(0, slash + 1);
    ASSERT_TRUE(connection.InsertRow(file.substr(directory.size()), directory, &bytes));
  }
}

void MakeHostTree(const std::string& directory, const std::map<std::string, std::string>& files) {
  for (const auto& [file, bytes] : files) {
    const std::filesystem::path path = std::filesystem::path(directory) / file;
    std::filesystem::create_directories(path.parent_path());
    WriteHostFile(path.string(), bytes);
  }
}

std::map<std::string, std::string> HostTreeFiles(const std::string& directory) {
  std::map<std::string, std::string> files;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    if (entry.is_regular_file()) {
      files[std::filesystem::relative(entry.path(), directory).string()] =
          ReadHostFile(entry.path().string());
    }
  }
  return files;
}

const std::map<std::string, std::string>& CliTest::Sample() {
  static const std::map<std::string, std::string> sample = {
      {"a.txt", "alpha\n"},
      {"docs/b.txt", "bravo\n"},
      {"docs/deep/c.bin", std::string("\0\1\2\xff\r\n", 6)},
      {"docs/\xc3\xbcn\xc3\xaf.txt", "a name that is not ASCII\n"},
  };
  return sample;
}

void CliTest::MakeSampleZip(const std::string& name) const {
  std::vector<ZipMember> members;
  bool deflate = false;
  for (const auto& [file, bytes] : Sample()) {
    members.push_back(deflate ? Deflated(file, bytes) : Stored(file, bytes));
    deflate = !deflate;
  }
  ASSERT_TRUE(WriteZip(PathOf(name), members));
}

}  // namespace velfs::testing
