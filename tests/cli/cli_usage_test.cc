// The velfs command line itself: --help, COMMAND --help, --version, and usage errors (exit 2,
// CLI11's message on standard error, nothing on standard output).
#include <gtest/gtest.h>

#include "cli_test_support.h"

namespace velfs::testing {
namespace {

using CliUsageTest = CliTest;

const char* const kCommands[] = {"ls", "tree", "cat", "stat",  "put",    "get",
                                 "cp", "mv",   "rm",  "rmdir", "import", "export"};

TEST_F(CliUsageTest, HelpNamesEveryCommandAndExitsZero) {
  const ToolRun run = Run({"--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.err, "");
  EXPECT_NE(run.out.find("Usage: velfs [OPTIONS] SUBCOMMAND"), std::string::npos) << run.out;
  for (const char* command : kCommands) {
    EXPECT_NE(run.out.find(std::string("\n  ") + command + " "), std::string::npos) << command;
  }
}

TEST_F(CliUsageTest, EveryCommandHasHelpWithAnExample) {
  for (const char* command : kCommands) {
    const ToolRun run = Run({command, "--help"});
    EXPECT_EQ(run.status, 0) << command;
    EXPECT_NE(run.out.find(std::string("Usage: velfs ") + command + " "), std::string::npos)
        << run.out;
    EXPECT_NE(run.out.find(std::string("Example: velfs ") + command + " "), std::string::npos)
        << run.out;
  }
}

TEST_F(CliUsageTest, VersionPrintsTheProjectVersion) {
  const ToolRun run = Run({"--version"});
  EXPECT_EQ(run.status, 0);
  EXPECT_EQ(run.out, "velfs 1.0.0\n");
}

TEST_F(CliUsageTest, NoCommandIsAUsageError) {
  const ToolRun run = Run({});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_NE(run.err.find("A subcommand is required"), std::string::npos) << run.err;
}

TEST_F(CliUsageTest, UnknownCommandIsAUsageError) {
  const ToolRun run = Run({"frobnicate", "store.db:"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "velfs: frobnicate: unknown command (velfs --help lists the commands)\n");
}

TEST_F(CliUsageTest, MissingOperandIsAUsageError) {
  for (const char* command : kCommands) {
    const ToolRun run = Run({command});
    EXPECT_EQ(run.status, 2) << command;
    EXPECT_NE(run.err.find("is required"), std::string::npos) << command << ": " << run.err;
  }
}

TEST_F(CliUsageTest, ExtraOperandIsAUsageError) {
  const ToolRun run = Run({"ls", "a", "b"});
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("The following argument was not expected: b"), std::string::npos)
      << run.err;
}

TEST_F(CliUsageTest, UnknownOptionIsAUsageError) {
  const ToolRun run = Run({"ls", "-z", "."});
  EXPECT_EQ(run.status, 2);
  EXPECT_NE(run.err.find("-z"), std::string::npos) << run.err;
}

TEST_F(CliUsageTest, EmptyPathIsAUsageError) {
  const ToolRun run = Run({"ls", ""});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, "velfs: empty path\n");
}

TEST_F(CliUsageTest, RootlessContainerPathIsAUsageError) {
  const ToolRun run = Run({"cat", ":docs/a.txt"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.err, "velfs: no root before the ':' of :docs/a.txt\n");
}

TEST_F(CliUsageTest, FullStandardOutputIsAFailure) {
  MakeSampleDatabase("store.db");
  for (const char* command : {"cat", "get"}) {
    std::vector<std::string> args = {command, "store.db:a.txt"};
    if (std::string(command) == "get") args.push_back("-");
    const ToolRun run = RunTool(args, PathOf(), "", "/dev/full");
    EXPECT_EQ(run.status, 1) << command;
    EXPECT_EQ(run.err, "velfs: standard output: write failed: No space left on device\n");
  }
  const ToolRun listing = RunTool({"ls", "store.db:"}, PathOf(), "", "/dev/full");
  EXPECT_EQ(listing.status, 1);
  EXPECT_EQ(listing.err, "velfs: standard output: write error\n");
}

TEST_F(CliUsageTest, UsageErrorsCreateNothing) {
  EXPECT_EQ(Run({"put", "missing-operand.db:"}).status, 2);
  EXPECT_FALSE(std::filesystem::exists(PathOf("missing-operand.db")));
}

}  // namespace
}  // namespace velfs::testing
