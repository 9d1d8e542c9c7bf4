// PhysfsSession: PhysicsFS initialised for one benchmark run and closed again (PHYSFS_deinit
// unmounts everything), with the benchmark's directory or archive mounted at the root.
#ifndef VELFS_BENCH_PHYSFS_SESSION_H
#define VELFS_BENCH_PHYSFS_SESSION_H

#include <string>

namespace velfs::bench {

class PhysfsSession {
 public:
  // Initialises PhysicsFS and mounts `path` (a directory or an archive) at the root.
  explicit PhysfsSession(const std::string& path);
  ~PhysfsSession();
  PhysfsSession(const PhysfsSession&) = delete;
  PhysfsSession& operator=(const PhysfsSession&) = delete;

  // True when both the initialisation and the mount succeeded.
  bool ok() const { return mounted_; }
  // PhysicsFS's last error text, for a failure message.
  static std::string LastError();

 private:
  bool initialised_ = false;
  bool mounted_ = false;
};

}  // namespace velfs::bench

#endif  // VELFS_BENCH_PHYSFS_SESSION_H
