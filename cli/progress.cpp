#include "cli/progress.h"

#include <time.h>
#include <unistd.h>

#include <cstdio>

#include "cli/clock.h"

namespace {

constexpr std::uint64_t kShowAbove = 1u << 20;
constexpr std::int64_t kRedrawMs = 100;

std::string size_text(double bytes) {
  static constexpr const char* kUnits[] = {"B", "KiB", "MiB", "GiB", "TiB"};
  int unit = 0;
  while (bytes >= 1024 && unit < 4) {
    bytes /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof text, unit == 0 ? "%.0f %s" : "%.1f %s", bytes, kUnits[unit]);
  return text;
}

void draw(transfer_progress* p) {
  double seconds = static_cast<double>(monotonic_ms() - p->started_ms) / 1000.0;
  std::string line(1, '\r');
  line.append(progress_text(p->done, p->total, seconds)).append("\x1b[K");
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::fflush(stderr);
  p->drawn = true;
}

}  // namespace

std::string progress_text(std::uint64_t done, std::uint64_t total, double seconds) {
  double rate = seconds > 0 ? static_cast<double>(done) / seconds : 0;
  std::string text = size_text(static_cast<double>(done)) + " / " +
                     size_text(static_cast<double>(total)) + "   " + size_text(rate) + "/s";
  if (done >= total) {
    char t[32];
    std::snprintf(t, sizeof t, "   %.1f s", seconds);
    return text + t;
  }
  if (rate <= 0) return text + "   --:-- left";
  auto left = static_cast<long long>(static_cast<double>(total - done) / rate + 0.5);
  char t[48];
  if (left >= 3600)
    std::snprintf(t, sizeof t, "   %lld:%02lld:%02lld left", left / 3600, left / 60 % 60, left % 60);
  else
    std::snprintf(t, sizeof t, "   %lld:%02lld left", left / 60, left % 60);
  return text + t;
}

void progress_start(transfer_progress* p, std::uint64_t total) {
  *p = transfer_progress{};
  p->total = total;
  p->shown = total > kShowAbove && isatty(STDERR_FILENO) == 1;
  p->started_ms = monotonic_ms();
}

void progress_callback(void* ctx, std::uint64_t done, std::uint64_t total) {
  auto* p = static_cast<transfer_progress*>(ctx);
  p->done = done;
  p->total = total;
  if (!p->shown) return;
  std::int64_t now = monotonic_ms();
  if (p->drawn && now - p->drawn_ms < kRedrawMs) return;
  p->drawn_ms = now;
  draw(p);
}

void progress_finish(transfer_progress* p) {
  if (!p->shown || !p->drawn) return;
  draw(p);
  std::fputc('\n', stderr);
  p->drawn = false;
}
