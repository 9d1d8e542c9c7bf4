// Support of the velfs tool's tests: running the built tool (VELFS_TOOL_PATH) in a scratch
// directory — on pipes, on a pseudo-terminal, or started and killed part-way — and looking at
// what it left: standard output and error, the exit status, host files and the rows of database
// roots (read with the sqlite3 C API, not through the library).
#ifndef VELFS_TESTS_CLI_CLI_TEST_SUPPORT_H
#define VELFS_TESTS_CLI_CLI_TEST_SUPPORT_H

#include <sys/types.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "test_support.h"

namespace velfs::testing {

struct ToolRun {
  int status = -1;  // the exit status; -1 when a signal ended the tool
  int signal = 0;   // that signal
  std::string out;  // standard output (on a terminal: everything printed)
  std::string err;  // standard error
};

// Runs the tool with `args` in directory `cwd`, `input` on standard input. With `output`, its
// standard output goes to that host file instead (ToolRun::out stays empty).
ToolRun RunTool(const std::vector<std::string>& args, const std::string& cwd,
                const std::string& input = "", const char* output = nullptr);
// Runs the tool with a pseudo-terminal as standard input, output and error.
ToolRun RunToolOnTerminal(const std::vector<std::string>& args, const std::string& cwd);

// The tool started with its standard output on a pipe, read line by line; standard error goes
// where the test's goes. The destructor kills and reaps it if it still runs.
class RunningTool {
 public:
  RunningTool(const std::vector<std::string>& args, const std::string& cwd);
  ~RunningTool();
  RunningTool(const RunningTool&) = delete;
  RunningTool& operator=(const RunningTool&) = delete;

  // The next line without its '\n'; false at the end of the output.
  bool ReadLine(std::string* line);
  // Sends `signal` and waits for the tool to end; answers the signal that ended it (0 if none).
  int KillAndWait(int signal);

 private:
  pid_t pid_ = -1;
  std::FILE* output_ = nullptr;
};

// The rows of the table FileStorage of a database file: Path + FileName -> Content.
std::map<std::string, std::string> DatabaseRows(const std::string& path);
// A database root made with SQLite alone, one row of FileStorage per file.
void MakeDatabase(const std::string& path, const std::map<std::string, std::string>& files);
// A host tree with these files (relative path -> bytes); directories are made as needed.
void MakeHostTree(const std::string& directory, const std::map<std::string, std::string>& files);
// Every regular file below a host directory: relative path -> bytes.
std::map<std::string, std::string> HostTreeFiles(const std::string& directory);

class CliTest : public ScratchDirTest {
 protected:
  // The tool run in the scratch directory; paths in `args` are relative to it.
  ToolRun Run(const std::vector<std::string>& args, const std::string& input = "") const {
    return RunTool(args, PathOf(), input);
  }

  // The tree of the tests: a file at the top, two levels below docs/, binary bytes and a
  // non-ASCII name.
  static const std::map<std::string, std::string>& Sample();
  void MakeSampleTree(const std::string& name) const { MakeHostTree(PathOf(name), Sample()); }
  void MakeSampleDatabase(const std::string& name) const { MakeDatabase(PathOf(name), Sample()); }
  // The sample as a ZIP archive (libzip): stored and deflated members, no directory members.
  void MakeSampleZip(const std::string& name) const;
};

}  // namespace velfs::testing

#endif  // VELFS_TESTS_CLI_CLI_TEST_SUPPORT_H
