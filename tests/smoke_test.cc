#include <cstring>

#include "test_support.h"
#include "velfs.h"

namespace velfs::testing {
namespace {

using SmokeTest = ScratchDirTest;

TEST_F(SmokeTest, DatabaseRootWritesAndReadsBack) {
  const std::string db = PathOf("store.db");
  DirHandle* dir = velfsOpenDir(db.c_str());
  ASSERT_NE(dir, nullptr);
  FileHandle* file = velfsCreateFileIndir(dir, "docs/a.txt", 1);
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(velfsWrite(file, "hello", 5), 5u);
  EXPECT_EQ(velfsSeek(file, 0, 0), 0);
  char buffer[8] = {};
  EXPECT_EQ(velfsRead(file, buffer, sizeof buffer), 5u);
  EXPECT_EQ(std::string(buffer, 5), "hello");
  velfsCloseFile(file);
  SecondConnection other(db);
  std::string content;
  EXPECT_TRUE(other.ReadRow("a.txt", "docs/", &content));
  EXPECT_EQ(content, "hello");
  velfsCloseDir(dir);
}

}  // namespace
}  // namespace velfs::testing
