// The velfs tool as a user sees it, run from its build directory (VELFS_TOOL) on real files in a
// scratch directory: the same tree through every kind of root, the changes of a database root,
// and every refusal with its exit status and message, which changes nothing. What the tool
// leaves is looked at without the library: host files, SQLite and a ZIP writer of the tests'.
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <thread>

#include "support.h"

namespace velfs::cli {
namespace {

namespace fs = std::filesystem;
using velfs_test::ReadHostFile;
using velfs_test::SecondConnection;

using Files = std::map<std::string, std::string>;  // relative path -> bytes

const char* const kCommands[] = {"ls",  "tree", "cat", "stat",   "put",    "get",
                                 "cp",  "mv",   "rm",  "rmdir",  "import", "export"};

// A file at the top, two levels below docs/, binary bytes and a name that is not ASCII.
const std::string kUnicodeName = "\xc3\xbcn\xc3\xaf.txt";
const Files kSample = {{"a.txt", "alpha\n"},
                       {"docs/b.txt", "bravo\n"},
                       {"docs/deep/c.bin", std::string("\0\1\2\xff\r\n", 6)},
                       {"docs/" + kUnicodeName, "a name that is not ASCII\n"}};

// Writes the file, making its directories; with `sparse`, a file of that size and no data.
void WriteFile(const std::string& path, const std::string& bytes, long long sparse = 0) {
  fs::create_directories(fs::path(path).parent_path());
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
  if (sparse > 0) {
    ASSERT_EQ(::truncate(path.c_str(), sparse), 0);
  }
}

Files ReadTree(const std::string& directory) {
  Files files;
  for (const auto& entry : fs::recursive_directory_iterator(directory)) {
    if (entry.is_regular_file()) {
      files[fs::relative(entry.path(), directory).string()] = ReadHostFile(entry.path().string());
    }
  }
  return files;
}

void WriteTree(const std::string& directory, const Files& files) {
  for (const auto& [name, bytes] : files) WriteFile(directory + "/" + name, bytes);
}

// A ZIP archive of `files`, the members alternately stored and deflated.
void WriteZip(const std::string& path, const Files& files) {
  std::vector<velfs_test::ZipMember> members;
  for (const auto& [name, bytes] : files) members.push_back({name, bytes, members.size() % 2 == 1});
  velfs_test::WriteZip(path, members);
}

// A ZIP archive whose deflated member v.txt has an invalid block type at its first byte.
void WriteDamagedZip(const std::string& path) {
  WriteZip(path, {{"a", ""}, {"v.txt", std::string(4096, 'v')}, {"w.txt", "w"}});
  std::string damaged = ReadHostFile(path);
  const std::size_t member = damaged.find("PK\3\4", 4);  // the local header of v.txt
  const std::size_t data = member + 30 + (damaged[member + 26] & 0xff) + (damaged[member + 28] & 0xff);
  damaged[data] = damaged[data + 1] = '\xff';
  WriteFile(path, damaged);
}

// Adds a row of FileStorage per file to the database at `path` with SQLite alone, as another
// program does, making the table when missing.
void Insert(const std::string& path, const Files& files) {
  SecondConnection db(path);
  EXPECT_TRUE(db.Exec("create table if not exists FileStorage (FileName text, Path text, "
                      "Content blob, Info blob, primary key(FileName, Path));"));
  for (const auto& [name, bytes] : files) {
    const std::size_t cut = name.rfind('/') + 1;  // 0 without a '/'
    static const char kDigits[] = "0123456789abcdef";
    std::string hex;
    for (const unsigned char byte : bytes) hex.append({kDigits[byte >> 4], kDigits[byte & 15]});
    EXPECT_TRUE(db.Exec("INSERT INTO FileStorage VALUES ('" + name.substr(cut) + "', '" +
                        name.substr(0, cut) + "', X'" + hex + "', NULL);")) << name;
  }
}

struct ToolRun {
  int status = -1;  // the exit status; -1 when a signal ended the tool
  std::string out;  // standard output (on a terminal: everything printed)
  std::string err;
};

struct Refusal {
  std::vector<std::string> args;
  int status;
  std::string err;  // after "velfs: "; "~text": CLI11's message, which contains text
  std::string out = "";          // what is written before the failure
  std::string input = "";
  const char* lock = nullptr;    // what another program holds on store.db meanwhile
  const char* output = nullptr;  // where standard output goes
  std::string prefix = "";       // a command that runs the tool, named with its arguments last
};

class CliTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "velfs-cli-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { fs::remove_all(dir_); }
  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  Files Rows(const std::string& database) const { return SecondConnection(Path(database)).Rows(); }

  // The tool run by the shell in the scratch directory with `input` on standard input (a pipe);
  // with `output`, its standard output goes to that file; on a `terminal` (script(1)'s
  // pseudo-terminal), everything it prints is ToolRun::out.
  ToolRun Run(const std::vector<std::string>& args, const std::string& input = "",
              const char* output = nullptr, bool terminal = false,
              const std::string& prefix = "") const {
    // No command may run for ever: a bound far beyond any run here.
    std::string command = prefix + "timeout 30 " VELFS_TOOL;
    for (const std::string& arg : args) {
      command += " '";
      for (const char c : arg) command += c == '\'' ? std::string("'\\''") : std::string(1, c);
      command += "'";
    }
    WriteFile(Path(".in"), input);
    command = terminal ? "script -qec \"" + command + "\" /dev/null >.out"
                       : "cat .in | " + command + " >" + (output ? output : ".out") + " 2>.err";
    const int status = std::system(("cd '" + dir_ + "' && " + command).c_str());
    ToolRun run;
    run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    run.out = output != nullptr ? "" : ReadHostFile(Path(".out"));
    run.err = terminal ? "" : ReadHostFile(Path(".err"));
    return run;
  }

  // Runs the tool as `refusal` says and checks its status, its output and its message.
  void ExpectRefusal(const Refusal& refusal) const {
    SecondConnection other(Path("store.db"));
    std::vector<std::string> args = refusal.args;
    if (refusal.lock != nullptr) {
      EXPECT_TRUE(other.Exec(refusal.lock));
      args.insert(args.begin(), {"--wait", "0"});  // the lock is held for the whole run
    }
    const ToolRun run = Run(args, refusal.input, refusal.output, false, refusal.prefix);
    if (refusal.lock != nullptr) {
      EXPECT_TRUE(other.Exec("COMMIT;"));
    }
    const std::string shown =
        refusal.args.empty() ? "" : refusal.args.front() + " " + refusal.args.back();
    EXPECT_EQ(run.status, refusal.status) << shown;
    EXPECT_EQ(run.out, refusal.out) << shown;
    if (refusal.err[0] == '~') {
      EXPECT_NE(run.err.find(refusal.err.substr(1)), std::string::npos) << shown << ": " << run.err;
    } else {
      EXPECT_EQ(run.err, "velfs: " + refusal.err + "\n") << shown;
    }
  }

  std::string dir_;
};

// The back-end as stat names it, and the root as the command line writes it.
struct RootKind {
  const char* backEnd;
  const char* root;
};
void PrintTo(const RootKind& kind, std::ostream* out) { *out << kind.backEnd; }

class CliRoundTripTest : public CliTest, public ::testing::WithParamInterface<RootKind> {};

INSTANTIATE_TEST_SUITE_P(Roots, CliRoundTripTest,
                         ::testing::Values(RootKind{"directory", "tree/"},
                                           RootKind{"ZIP archive", "pack.zip:"},
                                           RootKind{"SQLite database", "store.db:"}),
                         [](const auto& info) { return std::string(info.param.root).substr(0, 4); });

// Made by import (by libzip for the archive), the tree prints the same from every root: the
// tool sorts what the back-ends list in their own order. Export gives back the bytes imported,
// and put and get work on the writable roots.
TEST_P(CliRoundTripTest, ImportInspectExportAndCompare) {
  const std::string backEnd = GetParam().backEnd;
  const std::string root = GetParam().root;
  const auto at = [&root](const std::string& inner) { return root + inner; };
  WriteTree(Path("assets"), kSample);
  if (backEnd == "ZIP archive") {
    WriteZip(Path("pack.zip"), kSample);
  } else {
    const ToolRun run = Run({"import", "assets", root});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_EQ(run.out, "imported 4 files (43 bytes) from assets into " + root + "\n");
    EXPECT_EQ(run.err, "");  // no progress bar: standard error is not a terminal
  }
  if (backEnd == "SQLite database") {
    EXPECT_EQ(Rows("store.db"), kSample);
  }
  // A file of a directory root is served from its own directory.
  const std::string fileRoot = backEnd == "directory" ? at("docs/deep/") : root;
  const std::pair<std::vector<std::string>, std::string> outputs[] = {
      {{"ls", at("")}, "docs/\na.txt\n"},
      {{"ls", at("docs")}, "deep/\nb.txt\n" + kUnicodeName + "\n"},
      {{"ls", "-l", at("docs/")}, "dir   - deep/\nfile  6 b.txt\nfile 25 " + kUnicodeName + "\n"},
      {{"ls", "-R", at("")},
       "docs/\ndocs/deep/\ndocs/deep/c.bin\ndocs/b.txt\ndocs/" + kUnicodeName + "\na.txt\n"},
      {{"ls", "-l", at("a.txt")}, "file 6 " + at("a.txt") + "\n"},
      {{"tree", at("")}, at("") + "\n├── docs/\n│   ├── deep/\n│   │   └── c.bin\n│   ├── b.txt\n"
                                  "│   └── " + kUnicodeName + "\n└── a.txt\n\n2 directories, 4 files\n"},
      {{"tree", at("docs/deep")}, at("docs/deep") + "\n└── c.bin\n\n0 directories, 1 file\n"},
      {{"cat", at("docs/deep/c.bin"), at("a.txt")}, kSample.at("docs/deep/c.bin") + "alpha\n"},
      {{"get", at("docs\\b.txt"), "-"}, "bravo\n"},  // a '\' is read as '/'
      {{"stat", at("docs/deep/c.bin")}, "path: " + at("docs/deep/c.bin") + "\nkind: file\nsize: 6\n"
                                        "root: " + fileRoot + "\nback-end: " + backEnd + "\n"},
      {{"stat", at("")}, "path: " + at("") + "\nkind: directory\nentries: 2\nroot: " + at("") +
                             "\nback-end: " + backEnd + "\n"},
      {{"export", root, "out"}, "exported 4 files (43 bytes) from " + root + " into out\n"},
      {{"export", "-v", at("docs/"), "part"}, "part/deep/c.bin\npart/b.txt\npart/" + kUnicodeName +
                                                  "\nexported 3 files (37 bytes) from " +
                                                  at("docs/") + " into part\n"},
      {{"get", at("docs/deep/c.bin"), "."}, ""},  // into a directory: as c.bin
  };
  for (const auto& [args, out] : outputs) {
    const ToolRun run = Run(args);
    EXPECT_EQ(run.status, 0) << args[0] << " " << args[1] << ": " << run.err;
    EXPECT_EQ(run.out, out);
    EXPECT_EQ(run.err, "");
  }
  EXPECT_EQ(ReadTree(Path("out")), kSample);
  EXPECT_EQ(ReadTree(Path("part")).at("deep/c.bin"), kSample.at("docs/deep/c.bin"));
  EXPECT_EQ(ReadHostFile(Path("c.bin")), kSample.at("docs/deep/c.bin"));
  if (backEnd == "ZIP archive") return;

  // A file into a directory keeps its name and replaces an existing one; standard input (a pipe
  // of unknown size) makes missing directories; no temporary file is left. The new c.bin takes
  // two of the tool's 16 MiB copy chunks, each byte telling its offset apart.
  std::string big((16 << 20) + 5, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>((i * 2654435761u) >> 13);
  WriteFile(Path("in/c.bin"), big);
  EXPECT_EQ(Run({"put", "in/c.bin", at("docs/deep")}).status, 0);
  EXPECT_EQ(Run({"put", "-", at("new/dir/stdin.txt")}, "piped\n").status, 0);
  EXPECT_EQ(Run({"put", Path("in/c.bin"), at("")}).status, 0);
  Files expected = kSample;
  expected["docs/deep/c.bin"] = expected["c.bin"] = big;
  expected["new/dir/stdin.txt"] = "piped\n";
  EXPECT_EQ(backEnd == "directory" ? ReadTree(Path("tree")) : Rows("store.db"),
            expected);
  ASSERT_EQ(Run({"export", root, "again"}).status, 0);
  EXPECT_EQ(ReadTree(Path("again")), expected);
}

// cp, mv, rm and rmdir inside a database root, cp between roots: every file ends where the
// commands put it. rmdir removes exactly the tree: rows that SQL LIKE 'docs/%' would also match
// (another letter case, '_' as a wildcard) stay.
TEST_F(CliTest, ChangesOfADatabaseRoot) {
  Files rows = kSample;
  rows["old.txt"] = "old\n";
  rows["DOCS/x.txt"] = rows["d_cs/y.txt"] = rows["docsy/z.txt"] = "keep\n";
  Insert(Path("store.db"), rows);
  WriteZip(Path("pack.zip"), kSample);
  fs::create_directory(Path("tree"));
  const std::vector<std::string> steps[] = {
      {"cp", "store.db:a.txt", "store.db:copies/"},
      {"cp", "store.db:docs/b.txt", "store.db:copies/a.txt"},
      {"mv", "store.db:copies/a.txt", "store.db:"},
      {"cp", "pack.zip:docs/deep/c.bin", "store.db:zip.bin"},
      {"cp", "store.db:docs/" + kUnicodeName, "tree/"},
      {"cp", "tree/" + kUnicodeName, "tree/sub/u.txt"},
      {"cp", "tree/sub/u.txt", "store.db:u.txt"},
      {"rm", "store.db:old.txt"},
      {"rmdir", "store.db:docs"},
  };
  for (const std::vector<std::string>& args : steps) {
    const ToolRun run = Run(args);
    EXPECT_EQ(run.status, 0) << args[0] << " " << args[1] << ": " << run.err;
    EXPECT_EQ(run.out + run.err, "");
  }
  const std::string unicode = kSample.at("docs/" + kUnicodeName);
  const Files expected = {{"a.txt", "bravo\n"},     {"zip.bin", kSample.at("docs/deep/c.bin")},
                          {"u.txt", unicode},       {"DOCS/x.txt", "keep\n"},
                          {"d_cs/y.txt", "keep\n"}, {"docsy/z.txt", "keep\n"}};
  EXPECT_EQ(Rows("store.db"), expected);
  EXPECT_EQ(ReadTree(Path("tree")), (Files{{kUnicodeName, unicode}, {"sub/u.txt", unicode}}));
}

// Each row fails with its status and message, and no row changes a root or leaves a file. The
// commands that only read create nothing either: a zero-byte file stays empty and another
// program's SQLite database gets no FileStorage table.
TEST_F(CliTest, RefusalsChangeNothing) {
  Insert(Path("store.db"), kSample);
  WriteZip(Path("pack.zip"), kSample);
  const std::string zip = ReadHostFile(Path("pack.zip"));
  WriteTree(Path("tree"), kSample);
  WriteFile(Path("notes.txt"), "plain text\n");
  WriteFile(Path("deep"), "a file named as a directory of the database\n");
  ASSERT_EQ(::mkfifo(Path("fifo").c_str(), 0600), 0);
  WriteTree(Path("odd"), {{"ok.txt", "ok"}, {"back\\slash.txt", "?"}});
  WriteTree(Path("withhuge"), {{"a.txt", "a"}});
  WriteFile(Path("withhuge/huge.bin"), "", 3LL << 30);  // beyond the API's 32-bit positions
  WriteTree(Path("withbig"), {{"new/x.txt", "stored before the refusal"}});
  WriteFile(Path("withbig/zz.bin"), "", 1500000000);  // beyond SQLite's largest row
  WriteTree(Path("existing"), {{"docs/b.txt", "mine\n"}});
  WriteFile(Path("sparse/huge.bin"), "", 1LL << 40);  // more than the target's free space
  WriteFile(Path("sparse/a.txt"), "a");
  WriteDamagedZip(Path("damaged.zip"));
  WriteFile(Path("empty.bin"), "");
  ASSERT_TRUE(SecondConnection(Path("foreign.db")).Exec("CREATE TABLE t (a); INSERT INTO t VALUES (1);"));
  const std::string foreign = ReadHostFile(Path("foreign.db"));

  const std::string directoryRoot =
      " in a directory root (velfs deletes, copies and moves files only inside database roots)";
  const std::string refused = " 1500000000 bytes: more than SQLite stores in one row (1000000000 "
                              "bytes unless SQLite was built with a larger SQLITE_MAX_LENGTH)";
  const std::string tooLarge = ": 3221225472 bytes is too large for a database root: the API's "
                               "32-bit file positions reach 2147483647 bytes";
  const std::string busy = ": the database may be locked by another program, or the disk full";
  const std::string locked = ": locked by another program (--wait sets how long velfs waits)";
  const char* const writer = "BEGIN IMMEDIATE;";  // another program's; others may still read
  const char* const reader = "BEGIN; SELECT count(*) FROM FileStorage;";
  const char* const full = "standard output: write failed: No space left on device";
  const Refusal refusals[] = {
      {{}, 2, "~A subcommand is required"},
      {{"frobnicate", "store.db:"}, 2, "frobnicate: unknown command (velfs --help lists the commands)"},
      {{"ls", "-z", "."}, 2, "~-z"},
      {{"ls", ""}, 2, "empty path"},
      {{"cat", ":docs/a.txt"}, 2, "no root before the ':' of :docs/a.txt"},
      {{"put", "-", "store.db:docs"}, 2, "store.db:docs: is a directory: name the file to write standard input to", "", "x"},
      {{"ls", "missing.db:docs"}, 1, "missing.db: root not found"},
      {{"ls", "notes.txt:"}, 1, "notes.txt: neither a ZIP archive nor an SQLite database"},
      {{"ls", "fifo:"}, 1, "fifo: not a directory, ZIP archive or database file"},
      {{"ls", "notes.txt/store.db:"}, 1, "notes.txt/store.db: root not found (part of the path is a file)"},
      {{"stat", "store.db:nothing/here"}, 1, "store.db:nothing/here: no such file or directory"},
      {{"tree", "tree/a.txt"}, 1, "tree/a.txt: not a directory"},
      {{"cat", "pack.zip:docs"}, 1, "pack.zip:docs: is a directory"},
      {{"cat", "store.db:a.txt", "store.db:docs\\nope.txt", "store.db:docs/b.txt"}, 1, "store.db:docs/nope.txt: no such file", "alpha\nbravo\n"},
      {{"cat", "damaged.zip:v.txt"}, 1, "damaged.zip:v.txt: read failed at byte 0 (damaged archive member?)"},
      {{"put", "notes.txt", "pack.zip:docs/a.txt"}, 1, "pack.zip:docs/a.txt: read-only ZIP archive"},
      {{"put", "missing.txt", "new.db:a.txt"}, 1, "missing.txt: No such file or directory"},
      {{"put", "tree", "new.db:"}, 1, "tree: is a directory"},
      {{"put", "deep", "store.db:docs/"}, 1, "store.db:docs/deep: is a directory"},
      {{"put", "withhuge/huge.bin", "new.db:"}, 1, "withhuge/huge.bin" + tooLarge},
      {{"put", "withbig/zz.bin", "store.db:a.txt"}, 1, "store.db:a.txt: the database refused" + refused},
      {{"put", "notes.txt", "nodir/new.db:a.txt"}, 1, "nodir/new.db: cannot create a database here: directory nodir not found"},
      {{"put", "-", "tree/a.txt/b.txt"}, 1, "tree/a.txt/b.txt: cannot create the file: tree/a.txt is not a directory", "", "x"},
      {{"get", "store.db:nope", "x"}, 1, "store.db:nope: no such file"},
      {{"get", "store.db:docs", "x"}, 1, "store.db:docs: is a directory (export copies a tree)"},
      {{"get", "store.db:a.txt", "no/such/dir/a.txt"}, 1, "no/such/dir/a.txt: No such file or directory"},
      {{"cp", "store.db:a.txt", "pack.zip:a.txt"}, 1, "pack.zip:a.txt: read-only ZIP archive"},
      {{"cp", "-n", "store.db:docs/deep/c.bin", "store.db:a.txt"}, 1, "store.db:a.txt: file exists"},
      {{"cp", "store.db:docs", "store.db:x"}, 1, "store.db:docs: is a directory (only files are copied and moved)"},
      {{"mv", "store.db:a.txt", "new.db:a.txt"}, 1, "store.db:a.txt: mv works inside one database root; use cp, then rm"},
      {{"mv", "tree/a.txt", "tree/b.txt"}, 1, "tree/a.txt: cannot move files" + directoryRoot},
      {{"rm", "pack.zip:a.txt"}, 1, "pack.zip:a.txt: read-only ZIP archive"},
      {{"rm", "store.db:docs"}, 1, "store.db:docs: is a directory (rmdir removes a directory)"},
      {{"rm", "tree/a.txt"}, 1, "tree/a.txt: cannot delete files" + directoryRoot},
      {{"rmdir", "store.db:"}, 1, "store.db: cannot remove the root directory: remove its files with rm, or delete the database"},
      {{"rmdir", "store.db:nope/"}, 1, "store.db:nope/: no such directory"},
      {{"rmdir", "store.db:a.txt"}, 1, "store.db:a.txt: not a directory (rm deletes a file)"},
      {{"rmdir", "tree/docs"}, 1, "tree/docs: cannot remove directories" + directoryRoot},
      {{"import", "tree", "pack.zip:"}, 1, "pack.zip: read-only ZIP archive"},
      {{"import", "nothere", "new.db:"}, 1, "nothere: No such file or directory"},
      {{"import", "notes.txt", "new.db:"}, 1, "notes.txt: not a directory (put copies one file)"},
      {{"import", "tree", "store.db:a.txt"}, 1, "store.db:a.txt: not a directory"},
      {{"import", "odd", "new.db:"}, 1, "odd/back\\slash.txt: the name contains '\\', which velfs reads as '/'"},
      {{"import", "withhuge", "store.db:"}, 1, "withhuge/huge.bin" + tooLarge},
      {{"import", "withbig", "store.db:"}, 1, "store.db:zz.bin: the database refused" + refused},
      {{"export", "store.db:a.txt", "out"}, 1, "store.db:a.txt: not a directory (get copies one file)"},
      {{"export", "store.db:nope/", "out"}, 1, "store.db:nope/: no such directory"},
      {{"export", "store.db:", "notes.txt"}, 1, "notes.txt: not a directory"},
      {{"export", "store.db:", "notes.txt/out"}, 1, "notes.txt/out: Not a directory"},
      // Checked before anything is written: the declared sizes against the target's free space.
      {{"export", "sparse", "out"}, 1, "~velfs: out: the files declare more than 1.0 TiB and . has "},
      {{"export", "store.db:", "existing"}, 1, "existing/docs/b.txt: file exists, nothing exported (--force replaces existing files)"},
      // One typo must not destroy a store: a ':' forgotten, or the container read from as target.
      {{"put", "notes.txt", "store.db"}, 1, "store.db: is a SQLite database, not replaced: did you mean store.db:notes.txt? (--force replaces it)"},
      {{"cp", "store.db:a.txt", "pack.zip"}, 1, "pack.zip: is a ZIP archive, not replaced: did you mean pack.zip:a.txt? (--force replaces it)"},
      {{"get", "store.db:a.txt", "store.db"}, 1, "store.db: is the SQLite database being read, not replaced: did you mean the target a.txt? (--force replaces it)"},
      {{"get", "store.db:a.txt", "pack.zip"}, 1, "pack.zip: is a ZIP archive, not replaced: did you mean the target a.txt? (--force replaces it)"},
      {{"cat", "store.db:a.txt"}, 1, full, "", "", nullptr, "/dev/full"},
      {{"get", "store.db:a.txt", "-"}, 1, full, "", "", nullptr, "/dev/full"},
      {{"ls", "store.db:"}, 1, "standard output: write error", "", "", nullptr, "/dev/full"},
      {{"put", "notes.txt", "store.db:a.txt"}, 1, "store.db:a.txt: cannot replace the file" + busy, "", "", writer},
      {{"put", "notes.txt", "store.db:new.txt"}, 1, "store.db:new.txt: the database refused the file" + busy, "", "", writer},
      {{"cp", "store.db:a.txt", "store.db:b.txt"}, 1, "store.db:b.txt: copy failed" + busy, "", "", writer},
      {{"mv", "store.db:a.txt", "store.db:b.txt"}, 1, "store.db:b.txt: move failed" + busy, "", "", writer},
      {{"rm", "store.db:a.txt"}, 1, "store.db:a.txt: cannot delete" + busy, "", "", writer},
      {{"rmdir", "store.db:docs"}, 1, "store.db:docs/deep/c.bin: cannot delete, nothing was removed" + busy, "", "", writer},
      {{"import", "tree", "store.db:"}, 1, "store.db:docs/deep/c.bin: cannot replace the file" + busy, "", "", writer},
      // The writes go into the tool's own transaction, but its commit cannot get the lock.
      {{"put", "notes.txt", "store.db:a.txt"}, 1, "store.db: the commit failed and nothing was changed" + locked, "", "", reader},
      {{"put", "notes.txt", "store.db:a.txt"}, 1, "store.db: the SQLite database cannot be opened" + locked, "", "", "BEGIN EXCLUSIVE;"},
  };
  for (const Refusal& refusal : refusals) ExpectRefusal(refusal);
  for (const std::string command : kCommands) ExpectRefusal({{command}, 2, "~is required"});
  const std::pair<std::string, std::string> unreadable[] = {
      {"empty.bin", "neither a ZIP archive nor an SQLite database"},
      {"foreign.db", "the SQLite database cannot be opened: not a velFS database: it has no "
                     "\"FileStorage\" table"}};
  for (const auto& [root, cause] : unreadable) {
    for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
             {"ls", root + ":"},          {"ls", "-lR", root + ":"},    {"stat", root + ":a"},
             {"tree", root + ":"},        {"cat", root + ":a"},         {"get", root + ":a", "x"},
             {"export", root + ":", "out"}, {"cp", root + ":a", "copy.db:a"}}) {
      ExpectRefusal({args, 1, root + ": " + cause});
    }
  }
  EXPECT_EQ(Rows("store.db"), kSample);
  EXPECT_EQ(ReadHostFile(Path("pack.zip")), zip);
  EXPECT_EQ(ReadTree(Path("tree")), kSample);
  EXPECT_EQ(ReadTree(Path("existing")), (Files{{"docs/b.txt", "mine\n"}}));
  EXPECT_EQ(ReadHostFile(Path("notes.txt")), "plain text\n");
  EXPECT_EQ(ReadHostFile(Path("empty.bin")), "");
  EXPECT_EQ(ReadHostFile(Path("foreign.db")), foreign);
  for (const char* made :
       {"new.db", "missing.db", "nodir", "x", "out", "a.txt", "copy.db", "store.db-journal"}) {
    EXPECT_FALSE(fs::exists(Path(made))) << made;
  }
}

// Causes that only the host knows are named: what the user may not read or write (as nobody
// when the tests run as root), and a disk that fills under a database write, which leaves the
// database whole with its previous rows (a 4 MiB file system in a private mount namespace).
TEST_F(CliTest, HostRefusalsNameTheirCause) {
  WriteZip(Path("pack.zip"), kSample);
  WriteTree(Path("tree"), {{"a.txt", "alpha\n"}});
  WriteFile(Path("secret.txt"), "secret\n");
  fs::create_directories(Path("tree/hidden"));
  fs::create_directories(Path("sealed"));
  fs::permissions(dir_, fs::perms::owner_all | fs::perms::others_read | fs::perms::others_exec);
  fs::permissions(Path("sealed"), fs::perms::owner_read | fs::perms::owner_exec);
  fs::permissions(Path("secret.txt"), fs::perms::none);
  fs::permissions(Path("tree/hidden"), fs::perms::none);
  const bool root = ::geteuid() == 0;
  if (!root && ::access(Path("secret.txt").c_str(), R_OK) == 0) {
    GTEST_SKIP() << "this user reads what its file modes deny";
  }
  const std::string nobody = root ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "";
  const Refusal denials[] = {
      {{"get", "pack.zip:a.txt", "sealed/a.txt"}, 1, "sealed/a.txt: Permission denied"},
      {{"export", "pack.zip:", "sealed/out"}, 1, "sealed/out: Permission denied"},
      {{"cat", "secret.txt"}, 1, "secret.txt: permission denied"},
      {{"ls", "tree/hidden"}, 1, "tree/hidden/: permission denied"},
      {{"ls", "-R", "tree"}, 1, "tree/hidden/: permission denied", "hidden/\na.txt\n"},
  };
  for (Refusal denial : denials) {
    denial.prefix = nobody;
    ExpectRefusal(denial);
  }
  fs::permissions(Path("tree/hidden"), fs::perms::owner_all);

  Insert(Path("store.db"), kSample);
  WriteFile(Path("big.bin"), std::string(6 << 20, 'b'));
  fs::create_directory(Path("small"));
  const std::string mount = "mount -t tmpfs -o size=4m tmpfs small";
  if (!root || std::system(("cd '" + dir_ + "' && unshare -m " + mount).c_str()) != 0) {
    GTEST_SKIP() << "mounting a file system is not permitted here";
  }
  // The rows are read within the namespace, whose file system ends with it.
  ExpectRefusal({{"put", "big.bin", "small/store.db:big.bin"}, 1,
                 "small/store.db:big.bin: the database refused the file: No space left on device",
                 "ok\n4|43\n", "", nullptr, nullptr,
                 "unshare -m sh -c '" + mount + " && cp store.db small/ && \"$@\"; status=$?; "
                 "sqlite3 small/store.db \"PRAGMA integrity_check; SELECT count(*), "
                 "sum(length(Content)) FROM FileStorage\"; exit $status' sh "});
}

// Symbolic links follow one rule in every command (that of cp -r and tar): a link named on the
// command line is followed; inside a walk a link to a file is read as the file and a link to a
// directory is listed ('@') and never entered, so links back up the tree cannot make a command
// repeat paths or run for ever. A broken link or a link loop is named for what it is. A name
// that holds control characters or bytes that are not UTF-8 is printed quoted and escaped,
// never raw to the terminal. The back-end follows what a root holds, not its name; sizes beyond
// the API's 32-bit positions come from the host. Every command has help with an example.
TEST_F(CliTest, LinksNamesBackEndsAndSizesAreShownAsTheyAre) {
  WriteTree(Path("tree"), {{"a.txt", "alpha\n"}, {"sub/b.txt", "bravo\n"}});
  fs::create_directory_symlink(".", Path("tree/loop"));
  fs::create_directory_symlink("..", Path("tree/sub/up"));
  fs::create_symlink("../a.txt", Path("tree/sub/alias.txt"));
  fs::create_symlink("nowhere", Path("tree/sub/dangling"));
  fs::create_symlink("cycle2", Path("tree/cycle1"));
  fs::create_symlink("cycle1", Path("tree/cycle2"));
  fs::create_directory_symlink("tree", Path("named"));
  WriteTree(Path("odd"), {{"\033[31mred", ""}, {"bad\xff", ""}, {"new\nline", ""},
                          {"tab\there", ""}, {"it's", ""}, {kUnicodeName, ""}});
  WriteZip(Path("archive.bin"), kSample);
  Insert(Path("data.zip"), kSample);
  WriteFile(Path("folder.db/huge.bin"), "", 3LL << 30);
  const std::string listing =
      "loop@\nsub/\nsub/up@\nsub/alias.txt\nsub/b.txt\nsub/dangling\na.txt\ncycle1\ncycle2\n";
  const std::string names = "'\\033[31mred'\n'bad?'\nit's\n'new\\nline'\n'tab\\there'\n" +
                            kUnicodeName + "\n";
  const struct {
    std::vector<std::string> args;
    int status;
    std::string out, err;
  } runs[] = {
      {{"ls", "-R", "tree"}, 0, listing, ""},
      {{"ls", "-R", "named"}, 0, listing, ""},  // followed: named on the command line
      {{"ls", "-lR", "tree/sub"}, 1,
       "link - up@\nfile 6 alias.txt\nfile 6 b.txt\nfile ? dangling\n",
       "velfs: tree/sub/dangling: dangling symbolic link\n"},
      {{"tree", "tree/sub"}, 0,
       "tree/sub\n├── up@\n├── alias.txt\n├── b.txt\n└── dangling\n\n0 directories, 4 files\n", ""},
      {{"export", "tree", "out"}, 1, "exported 3 files (18 bytes) from tree into out\n",
       "velfs: tree/loop: skipped: symbolic link to a directory, not followed\n"
       "velfs: tree/sub/up: skipped: symbolic link to a directory, not followed\n"
       "velfs: tree/sub/dangling: dangling symbolic link: not exported\n"
       "velfs: tree/cycle1: symbolic link loop: not exported\n"
       "velfs: tree/cycle2: symbolic link loop: not exported\n"
       "velfs: tree: 3 entries not exported exactly (see above)\n"},
      {{"ls", "odd"}, 0, names, ""},
      {{"ls", "-R", "odd"}, 0, names, ""},
      {{"tree", "odd"}, 0, "odd\n├── '\\033[31mred'\n├── 'bad?'\n├── it's\n├── 'new\\nline'\n"
                          "├── 'tab\\there'\n└── " + kUnicodeName + "\n\n0 directories, 6 files\n", ""},
      {{"stat", "archive.bin:"}, 0, "path: archive.bin:\nkind: directory\nentries: 2\nroot: archive.bin:\nback-end: ZIP archive\n", ""},
      {{"stat", "data.zip:a.txt"}, 0, "path: data.zip:a.txt\nkind: file\nsize: 6\nroot: data.zip:\nback-end: SQLite database\n", ""},
      {{"stat", "folder.db/huge.bin"}, 0, "path: folder.db/huge.bin\nkind: file\nsize: 3221225472\nroot: folder.db/\nback-end: directory\n", ""},
      {{"ls", "-l", "folder.db"}, 0, "file 3221225472 huge.bin\n", ""},
      {{"--version"}, 0, "velfs 1.0.0\n", ""},
  };
  for (const auto& [args, status, out, err] : runs) {
    const ToolRun run = Run(args);
    EXPECT_EQ(run.status, status) << args.front() << " " << args.back();
    EXPECT_EQ(run.out, out) << args.front() << " " << args.back();
    EXPECT_EQ(run.err, err) << args.front() << " " << args.back();
  }
  const Files copied = {{"a.txt", "alpha\n"}, {"sub/alias.txt", "alpha\n"}, {"sub/b.txt", "bravo\n"}};
  EXPECT_EQ(ReadTree(Path("out")), copied);
  const ToolRun imported = Run({"import", "tree", "store.db:"});
  EXPECT_EQ(imported.status, 0) << imported.err;
  EXPECT_EQ(imported.err, "velfs: tree/cycle1: skipped: symbolic link loop\n"
                          "velfs: tree/cycle2: skipped: symbolic link loop\n"
                          "velfs: tree/loop: skipped: symbolic link to a directory, not followed\n"
                          "velfs: tree/sub/dangling: skipped: dangling symbolic link\n"
                          "velfs: tree/sub/up: skipped: symbolic link to a directory, not followed\n");
  EXPECT_EQ(Rows("store.db"), copied);
  for (const std::string command : kCommands) {
    const ToolRun help = Run({command, "--help"});
    EXPECT_EQ(help.status, 0) << command;
    EXPECT_NE(help.out.find("Example: velfs " + command + " "), std::string::npos) << help.out;
  }
}

// What cannot be exported exactly is reported by name, the rest is exported, and the status
// says so; a database and an archive holding the same names answer the same. A directory that
// SQL LIKE finds in a database ('_' a wildcard) but that holds no file is not made.
TEST_F(CliTest, NamesThatCannotBeExportedAreReported) {
  const Files stored = {{"ok/good.txt", "good"}, {"a\\b.txt", "A"}, {"/abs.txt", "B"},
                        {"a//e.txt", "C"},       {"x", "E"},        {"x/y", "F"},
                        {"up/../../esc.txt", "J"}, {"docs/deep/c.bin", "c"}, {"d_cs/w.txt", "w"}};
  Insert(Path("store.db"), stored);
  ASSERT_TRUE(SecondConnection(Path("store.db"))
                  .Exec("INSERT INTO FileStorage VALUES ('n.txt', 'noslash', X'4E', NULL);"));
  WriteZip(Path("pack.zip"), stored);
  const std::string reports =
      "velfs: ROOT: 1 stored entry without a name here (a path with '//' or a leading '/', or an "
      "empty file name), which no path reaches: left out\n"
      "velfs: ROOT:a/: 1 stored entry without a name here (a path with '//' or a leading '/', or "
      "an empty file name), which no path reaches: left out\n"
      "velfs: ROOT:up/..: unsafe name ('.', '..' or an empty part): not exported\n"
      "velfs: ROOT:a\\b.txt: the name contains '\\', which velfs reads as '/': not exported\n"
      "velfs: ROOT:x: a directory of the same name is exported, or the name is listed twice: not "
      "exported\n"
      "velfs: ROOT: 5 entries not exported exactly (see above)\n";
  for (const std::string root : {"store.db", "pack.zip"}) {
    const ToolRun run = Run({"export", root + ":", root + ".out"});
    EXPECT_EQ(run.status, 1) << root;
    std::string expected = reports;
    for (std::size_t at; (at = expected.find("ROOT")) != std::string::npos;) {
      expected.replace(at, 4, root);
    }
    if (root == "store.db") {  // and a row that no listing reaches, which a ZIP cannot hold
      expected.insert(expected.rfind("velfs:"), "velfs: store.db:noslashn.txt: stored with a Path "
                      "that does not end in '/', which no listing reaches: not exported\n");
      expected.replace(expected.rfind('5'), 1, "6");
    }
    EXPECT_EQ(run.err, expected) << root;
    EXPECT_EQ(ReadTree(Path(root + ".out")),
              (Files{{"ok/good.txt", "good"}, {"x/y", "F"}, {"docs/deep/c.bin", "c"},
                     {"d_cs/w.txt", "w"}})) << root;
  }
  EXPECT_EQ(Run({"export", "store.db:d_cs/", "like"}).status, 0);
  EXPECT_EQ(ReadTree(Path("like")), (Files{{"w.txt", "w"}}));
  EXPECT_FALSE(fs::exists(Path("like/deep")));
  EXPECT_EQ(Run({"stat", "store.db:d_cs/deep"}).err,
            "velfs: store.db:d_cs/deep: no such file or directory\n");
  // Each file is written under a temporary name and renamed when complete: a member that fails
  // midway leaves neither its bytes nor a temporary file, and a rerun with --force completes an
  // export that an interruption left half done.
  WriteDamagedZip(Path("damaged.zip"));
  const ToolRun damaged = Run({"export", "damaged.zip:", "out"});
  EXPECT_EQ(damaged.status, 1);
  EXPECT_NE(damaged.err.find("velfs: damaged.zip:v.txt: read failed at byte 0 (damaged archive "
                             "member?): not exported\n"),
            std::string::npos)
      << damaged.err;
  EXPECT_EQ(ReadTree(Path("out")), (Files{{"a", ""}, {"w.txt", "w"}}));  // no temporary either

  Insert(Path("sample.db"), kSample);
  WriteTree(Path("half"), {{"docs/b.txt", "br"}});  // what a killed export leaves
  EXPECT_EQ(Run({"export", "sample.db:", "half"}).status, 1);
  EXPECT_EQ(Run({"export", "--force", "sample.db:", "half"}).status, 0);
  EXPECT_EQ(ReadTree(Path("half")), kSample);
}

// Another program's lock is waited for (--wait, 5 seconds unless told), not failed at once: a
// reader and a writer both get through once the lock is released.
TEST_F(CliTest, LocksAreWaitedFor) {
  Insert(Path("store.db"), kSample);
  const std::pair<std::vector<std::string>, std::string> runs[] = {
      {{"cat", "store.db:a.txt"}, "alpha\n"},
      {{"export", "store.db:docs/deep", "out"},
       "exported 1 files (6 bytes) from store.db:docs/deep into out\n"},
      {{"put", "-", "store.db:w.txt"}, ""}};
  for (const char* lock : {"BEGIN EXCLUSIVE;", "BEGIN IMMEDIATE;"}) {
    for (const auto& [args, out] : runs) {
      SecondConnection other(Path("store.db"));
      EXPECT_TRUE(other.Exec(lock));
      std::thread release([&other] {
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_TRUE(other.Exec("COMMIT;"));
      });
      const ToolRun run = Run(args, lock);
      release.join();
      EXPECT_EQ(run.status, 0) << lock << args[0] << ": " << run.err;
      EXPECT_EQ(run.out, out) << lock << args[0];
      fs::remove_all(Path("out"));
    }
  }
  EXPECT_EQ(Rows("store.db").at("w.txt"), "BEGIN IMMEDIATE;");
}

// import leaves out what it cannot store and its own database file, and says so; -v names each
// file stored. On a terminal, import and export draw a progress bar on standard error.
TEST_F(CliTest, ImportSkipsWhatItCannotStoreAndShowsProgress) {
  WriteTree(Path("assets"), kSample);
  ASSERT_EQ(::mkfifo(Path("assets/pipe").c_str(), 0600), 0);
  const ToolRun run = Run({"import", "-v", "assets", "assets/store.db:in/"});
  EXPECT_EQ(run.status, 0) << run.err;
  const std::string at = "assets/store.db:in/";
  EXPECT_EQ(run.out, at + "docs/deep/c.bin\n" + at + "docs/b.txt\n" + at + "docs/" + kUnicodeName +
                         "\n" + at + "a.txt\nimported 4 files (43 bytes) from assets into " + at + "\n");
  EXPECT_EQ(run.err, "velfs: assets/pipe: skipped: not a regular file\n");

  const ToolRun imported = Run({"import", "assets/docs/deep", "store.db:"}, "", nullptr, true);
  EXPECT_EQ(imported.status, 0) << imported.out;
  EXPECT_NE(imported.out.find("] 1/1 files  6 B/6 B  "), std::string::npos) << imported.out;
  EXPECT_NE(imported.out.find("\r\033[K"), std::string::npos) << imported.out;
  const ToolRun exported = Run({"export", "store.db:", "out"}, "", nullptr, true);
  EXPECT_NE(exported.out.find("] 1/1 files"), std::string::npos) << exported.out;
}

}  // namespace
}  // namespace velfs::cli
