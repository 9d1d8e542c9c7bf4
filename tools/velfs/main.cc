// The velfs command-line tool: build, inspect and unpack velFS roots through the exported C API
// of include/velfs.h (see velfs.1 and README.md).
#include "application.h"

int main(int argc, char** argv) {
  velfs::tool::Application application;
  return application.Run(argc, argv);
}
