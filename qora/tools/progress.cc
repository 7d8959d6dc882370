// SPDX-License-Identifier: BSD-2-Clause
#include "qora/tools/progress.h"

#include <algorithm>
#include <cstdio>

namespace qora::tools {
namespace {

constexpr std::chrono::milliseconds kInterval{250};

template <typename... Values>
std::string format(const char* pattern, Values... values) {
  char text[128];
  std::snprintf(text, sizeof text, pattern, values...);
  return text;
}

double framesASecond(const ProgressFigures& figures) {
  return figures.seconds > 0 ? static_cast<double>(figures.frames) / figures.seconds : 0;
}

double kilobitsASecond(const ProgressFigures& figures) {
  if (figures.frames == 0) return 0;
  const double kilobits = static_cast<double>(figures.bytes) * 8 / 1000;
  return kilobits * figures.frameRate / static_cast<double>(figures.frames);
}

}  // namespace

std::string progressText(const ProgressFigures& figures) {
  const auto frames = static_cast<long long>(figures.frames);
  const auto done = static_cast<double>(figures.frames);
  const double fps = framesASecond(figures);
  const double kilobits = kilobitsASecond(figures);
  const std::string rates = format(" frames, %.2f fps, %.2f kb/s", fps, kilobits);
  if (figures.total <= 0) return format("%lld", frames) + rates;

  // A clip can turn out longer than its length told.
  const int64_t total = std::max(figures.total, figures.frames);
  const double percent = 100 * done / static_cast<double>(total);
  const double left = fps > 0 ? static_cast<double>(total - figures.frames) / fps : 0;
  const auto eta = static_cast<long long>(left);
  return format("[%.1f%%] %lld/%lld", percent, frames, static_cast<long long>(total)) + rates +
         format(", eta %lld:%02lld:%02lld", eta / 3600, eta / 60 % 60, eta % 60);
}

std::string progressKeys(const ProgressFigures& figures) {
  const auto number = [](const char* key, int64_t value) {
    return std::string(key) + "=" + std::to_string(value) + "\n";
  };
  return number("frames", figures.frames) +
         (figures.total > 0 ? number("total", figures.total) : "") +
         number("bytes", figures.bytes) +
         format("seconds=%.3f\nfps=%.2f\nkbps=%.2f\n", figures.seconds, framesASecond(figures),
                kilobitsASecond(figures));
}

void ProgressKeys::update(const ProgressFigures& figures) {
  if (to_ == nullptr || std::chrono::steady_clock::now() < next_) return;
  next_ = std::chrono::steady_clock::now() + kInterval;
  std::fprintf(to_, "%sprogress=continue\n", progressKeys(figures).c_str());
  std::fflush(to_);
}

void ProgressKeys::end(const ProgressFigures& figures, const std::string& more) {
  if (to_ == nullptr) return;
  std::fprintf(to_, "%s%sprogress=end\n", progressKeys(figures).c_str(), more.c_str());
  std::fflush(to_);
}

bool ProgressLine::isDue() const {
  return shown_ && std::chrono::steady_clock::now() >= next_;
}

void ProgressLine::show(const std::string& text) {
  next_ = std::chrono::steady_clock::now() + kInterval;
  const std::string blanks(width_ > text.size() ? width_ - text.size() : 0, ' ');
  std::fprintf(stderr, "\r%s%s", text.c_str(), blanks.c_str());
  std::fflush(stderr);
  width_ = text.size();
}

void ProgressLine::clear() {
  if (width_ == 0) return;
  std::fprintf(stderr, "\r%s\r", std::string(width_, ' ').c_str());
  std::fflush(stderr);
  width_ = 0;
}

}  // namespace qora::tools
