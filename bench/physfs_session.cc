// PhysfsSession over PhysicsFS 3.0.2.
#include "physfs_session.h"

#include <physfs.h>

namespace velfs::bench {

PhysfsSession::PhysfsSession(const std::string& path) {
  initialised_ = PHYSFS_init(nullptr) != 0;
  mounted_ = initialised_ && PHYSFS_mount(path.c_str(), nullptr, 1) != 0;
}

PhysfsSession::~PhysfsSession() {
  if (initialised_) PHYSFS_deinit();
}

std::string PhysfsSession::LastError() { return PHYSFS_getErrorByCode(PHYSFS_getLastErrorCode()); }

}  // namespace velfs::bench
