#include "support.h"

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>

namespace velfs_test {

namespace fs = std::filesystem;

void ScratchTest::SetUp() {
  static std::atomic<unsigned> counter{0};
  dir_ = fs::temp_directory_path() /
         ("velfs-" + std::to_string(std::random_device{}()) + "-" + std::to_string(counter++));
  fs::remove_all(dir_);
  fs::create_directories(dir_);
}

void ScratchTest::TearDown() {
  std::error_code ignored;
  fs::remove_all(dir_, ignored);
}

std::string ScratchTest::PathOf(const std::string& name) const {
  return name.empty() ? dir_.generic_string() : (dir_ / name).generic_string();
}

std::string KindName(const ::testing::TestParamInfo<RootKind>& info) {
  static const char* const names[] = {"Directory", "Archive", "Database"};
  return names[static_cast<int>(info.param)];
}

const std::map<std::string, std::string>& SampleTree() {
  static const std::map<std::string, std::string> tree = {
      {"readme.txt", "hello, world\n"},
      {"docs/a.txt", "0123456789"},
      {"docs/sub/b.bin", std::string("\0\1\2\3binary\xff", 11)},
  };
  return tree;
}

std::string BuildSampleRoot(RootKind kind, const std::string& path) {
  switch (kind) {
    case RootKind::kDirectory:
      for (const auto& [name, content] : SampleTree()) {
        fs::create_directories(fs::path(path + "/" + name).parent_path());
        WriteHostFile(path + "/" + name, content);
      }
      return path;
    case RootKind::kArchive: {
      // Directory members as ZIP writers make them; files alternately stored and deflated.
      std::vector<ZipMember> members = {{"docs/", ""}, {"docs/sub/", ""}};
      bool deflate = false;
      for (const auto& [name, content] : SampleTree()) {
        members.push_back({name, content, deflate});
        deflate = !deflate;
      }
      WriteZip(path, members);
      return path;
    }
    case RootKind::kDatabase: {
      DirHandle* dir = velfsOpenDir(path.c_str());
      EXPECT_NE(dir, nullptr) << path;
      for (const auto& [name, content] : SampleTree()) {
        EXPECT_TRUE(WriteAndClose(velfsCreateFileIndir(dir, name.c_str(), 1), content)) << name;
      }
      velfsCloseDir(dir);
      return path;
    }
  }
  return path;
}

std::string Noise(std::size_t length, uint32_t seed) {
  std::string text(length, '\0');
  for (char& c : text) {
    seed ^= seed << 13, seed ^= seed >> 17, seed ^= seed << 5;
    c = static_cast<char>('a' + seed % 16);
  }
  return text;
}

void WriteHostFile(const std::string& path, const std::string& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  ASSERT_TRUE(out.good()) << path;
}

std::string ReadHostFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return "<absent>";
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string ReadRest(FileHandle* file) {
  std::string text;
  char buffer[4096];
  for (uint64_t count; (count = velfsRead(file, buffer, sizeof buffer)) != 0;) {
    if (count > sizeof buffer) return text + "<failed>";
    text.append(buffer, count);
  }
  return text;
}

std::string ReadAndClose(FileHandle* file) {
  if (file == nullptr) return "<absent>";
  std::string text = ReadRest(file);
  velfsCloseFile(file);
  return text;
}

std::string ReadFullPath(const std::string& fullPath) {
  return ReadAndClose(velfsCreateFile(fullPath.c_str(), 0));
}

bool WriteAndClose(FileHandle* file, const std::string& bytes) {
  const bool written =
      file != nullptr && velfsWrite(file, bytes.data(), bytes.size()) == bytes.size();
  velfsCloseFile(file);
  return written;
}

std::string Exists(DirHandle* dir, const char* path, bool directory) {
  bool exists = false;
  if (!(directory ? velfsIsDirectoryExist(dir, path, &exists)
                  : velfsIsFileExist(dir, path, &exists))) {
    return "failed";
  }
  return exists ? "yes" : "no";
}

std::string Take(char* name) {
  std::string text = name == nullptr ? "<null>" : name;
  std::free(name);
  return text;
}

std::map<std::string, bool> Listing(EnumHandle* listing, bool keepOpen) {
  if (listing == nullptr) return {{"<no listing>", false}};
  std::map<std::string, bool> entries;
  while (velfsMoveNext(listing)) {
    char* name = nullptr;
    EXPECT_TRUE(velfsGetFullName(listing, &name));
    entries[Take(name)] = velfsIsDirectory(listing);
  }
  if (!keepOpen) velfsCloseEnum(listing);
  return entries;
}

SecondConnection::SecondConnection(const std::string& path) {
  EXPECT_EQ(sqlite3_open(path.c_str(), &db_), SQLITE_OK) << path;
}

SecondConnection::~SecondConnection() { sqlite3_close(db_); }

bool SecondConnection::Exec(const std::string& sql) {
  return sqlite3_exec(db_, sql.c_str(), nullptr, nullptr, nullptr) == SQLITE_OK;
}

std::map<std::string, std::string> SecondConnection::Rows(const std::string& sql,
                                                          const std::vector<std::string>& binds) {
  std::map<std::string, std::string> rows;
  sqlite3_stmt* statement = nullptr;
  if (sqlite3_prepare_v2(db_, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK) {
    return {{"<error: " + std::string(sqlite3_errmsg(db_)) + ">", ""}};
  }
  for (std::size_t i = 0; i < binds.size(); ++i) {
    sqlite3_bind_text(statement, static_cast<int>(i + 1), binds[i].c_str(), -1, SQLITE_TRANSIENT);
  }
  const auto column = [statement](int index) {
    if (index >= sqlite3_column_count(statement)) return std::string();
    const auto* bytes = static_cast<const char*>(sqlite3_column_blob(statement, index));
    return sqlite3_column_type(statement, index) == SQLITE_NULL
               ? std::string("<null>")
               : std::string(bytes == nullptr ? "" : bytes,
                             static_cast<std::size_t>(sqlite3_column_bytes(statement, index)));
  };
  int step;
  while ((step = sqlite3_step(statement)) == SQLITE_ROW) rows[column(0)] = column(1);
  if (step != SQLITE_DONE) rows = {{"<error: " + std::string(sqlite3_errmsg(db_)) + ">", ""}};
  sqlite3_finalize(statement);
  return rows;
}

std::string SecondConnection::Content(const std::string& fileName, const std::string& path) {
  const auto rows = Rows("SELECT 1, Content FROM FileStorage WHERE FileName = ? AND Path = ?",
                         {fileName, path});
  return rows.empty() ? "<no row>" : rows.begin()->first[0] == '<' ? rows.begin()->first
                                                                     : rows.begin()->second;
}

int SecondConnection::RowCount() {
  const auto rows = Rows("SELECT count(*) FROM FileStorage");
  return rows.size() == 1 && rows.begin()->first[0] != '<' ? std::stoi(rows.begin()->first) : -1;
}

}  // namespace velfs_test
