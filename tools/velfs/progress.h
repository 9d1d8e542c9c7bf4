// Progress: the progress bar of import and export on standard error (files, bytes, rate, time
// left), drawn only when standard error is a terminal and at most ten times a second.
#ifndef VELFS_TOOLS_PROGRESS_H
#define VELFS_TOOLS_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

namespace velfs::tool {

class Progress {
 public:
  // `files` and `bytes` are the totals to reach. The bar is drawn when `enabled`.
  Progress(uint64_t files, uint64_t bytes, bool enabled);
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;
  // Clears the bar's line if Done was not called (a failure ends the command).
  ~Progress();
  // True when standard error is a terminal.
  static bool Wanted();

  void AddBytes(uint64_t bytes);
  void FinishFile();
  // Clears the bar's line.
  void Done();

  uint64_t Files() const { return files_; }
  uint64_t Bytes() const { return bytes_; }

  // "1.5 MiB", "312 B".
  static std::string FormatBytes(double bytes);

 private:
  using Clock = std::chrono::steady_clock;

  void Draw(bool force);

  uint64_t totalFiles_;
  uint64_t totalBytes_;
  bool enabled_;
  uint64_t files_ = 0;
  uint64_t bytes_ = 0;
  Clock::time_point start_;
  Clock::time_point lastDraw_;
  bool drawn_ = false;
  bool done_ = false;
};

}  // namespace velfs::tool

#endif  // VELFS_TOOLS_PROGRESS_H
