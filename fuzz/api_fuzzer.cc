// The exported API: the input is a script of calls (api_session.h) over the fixed roots.
// Crashes, sanitizer reports and leaks are the findings.
#include "api_session.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  static const velfs_fuzz::Sandbox sandbox("api");
  sandbox.Clear();
  velfs_fuzz::MakeRoots(sandbox);
  velfs_fuzz::Script script(data, size);
  velfs_fuzz::Session session(sandbox, script);
  for (int step = 0; step < 256 && !script.empty(); ++step) session.Step();
  return 0;
}
