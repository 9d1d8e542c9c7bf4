// The loader's call of DllMain at process attach, on ELF: a constructor that runs
// when the library is loaded, handing DllMain the library's own load address as its module.
#include <dlfcn.h>

#include "velfs.h"

namespace {

__attribute__((constructor)) void AttachProcess() {
  Dl_info info{};
  dladdr(reinterpret_cast<void*>(&DllMain), &info);
  DllMain(info.dli_fbase, 1, nullptr);
}

}  // namespace
