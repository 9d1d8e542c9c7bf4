// Progress: one line, rewritten with '\r': [#####-----]  3/7 files  1.2 MiB/5.0 MiB  4.1 MiB/s
// 0:02 left.
#include "progress.h"

#include <cinttypes>
#include <cstdio>

#include "host.h"

namespace velfs::tool {

namespace {

constexpr int kBarWidth = 24;
constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

std::string FormatDuration(double seconds) {
  const auto total = static_cast<long long>(seconds + 0.5);
  char text[32];
  std::snprintf(text, sizeof text, "%lld:%02lld", total / 60, total % 60);
  return text;
}

}  // namespace

Progress::Progress(uint64_t files, uint64_t bytes, bool enabled)
    : totalFiles_(files), totalBytes_(bytes), enabled_(enabled), start_(Clock::now()) {}

Progress::~Progress() {
  if (enabled_ && drawn_ && !done_) {
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
  }
}

bool Progress::Wanted() { return host::StandardErrorIsTerminal(); }

std::string Progress::FormatBytes(double bytes) {
  static const char* const kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int unit = 0;
  while (bytes >= 1024 && unit < 4) {
    bytes /= 1024;
    ++unit;
  }
  char text[32];
  if (unit == 0) {
    std::snprintf(text, sizeof text, "%.0f B", bytes);
  } else {
    std::snprintf(text, sizeof text, "%.1f %s", bytes, kUnits[unit]);
  }
  return text;
}

void Progress::AddBytes(uint64_t bytes) {
  bytes_ += bytes;
  Draw(false);
}

void Progress::FinishFile() {
  ++files_;
  Draw(false);
}

void Progress::Done() {
  if (!enabled_ || done_) return;
  done_ = true;
  Draw(true);
  std::fputs("\r\033[K", stderr);
  std::fflush(stderr);
}

void Progress::Draw(bool force) {
  if (!enabled_) return;
  const Clock::time_point now = Clock::now();
  if (!force && drawn_ && now - lastDraw_ < kRedrawInterval) return;
  lastDraw_ = now;
  drawn_ = true;

  const double fraction = totalBytes_ > 0
                              ? static_cast<double>(bytes_) / static_cast<double>(totalBytes_)
                              : (totalFiles_ > 0 ? static_cast<double>(files_) / totalFiles_ : 1.0);
  const int filled = static_cast<int>(fraction * kBarWidth + 0.5);
  std::string bar(static_cast<std::size_t>(filled), '#');
  bar.resize(kBarWidth, '-');

  const double seconds = std::chrono::duration<double>(now - start_).count();
  const double rate = seconds > 0 ? static_cast<double>(bytes_) / seconds : 0.0;
  const uint64_t remaining = totalBytes_ > bytes_ ? totalBytes_ - bytes_ : 0;
  const std::string left =
      rate > 0 ? FormatDuration(static_cast<double>(remaining) / rate) : "-:--";
  std::fprintf(stderr, "\r[%s] %" PRIu64 "/%" PRIu64 " files  %s/%s  %s/s  %s left\033[K",
               bar.c_str(), files_, totalFiles_, FormatBytes(static_cast<double>(bytes_)).c_str(),
               FormatBytes(static_cast<double>(totalBytes_)).c_str(), FormatBytes(rate).c_str(),
               left.c_str());
  std::fflush(stderr);
}

}  // namespace velfs::tool
