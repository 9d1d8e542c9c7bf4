// Databases: the input starts with a database image (a Number giving its length, then its bytes)
// that becomes the database root beside the API target's fixed roots; the rest is the API
// target's script (api_session.h), which opens it as a root and through full paths (each with a
// connection of its own) and reads, writes, resizes, lists, renames, copies, moves, deletes and
// runs transactions in it. Crashes, sanitizer reports and leaks are the findings.
#include "api_session.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static const velfs_fuzz::Sandbox sandbox("database");
  sandbox.Clear();  // the image and any journal SQLite left beside it
  velfs_fuzz::Script script(data, size);
  const std::string image = script.Bytes(script.Number(1 << 20));
  velfs_fuzz::MakeRoots(sandbox, &image);
  velfs_fuzz::Session session(sandbox, script);
  for (int step = 0; step < 256 && !script.empty(); ++step) session.Step();
  return 0;
}
