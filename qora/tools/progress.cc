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

}  // namespace

std::string progressText(const ProgressFigures& figures) {
  const auto frames = static_cast<long long>(figures.frames);
  const auto done = static_cast<double>(figures.frames);
  const double fps = figures.seconds > 0 ? done / figures.seconds : 0;
  const double kilobits =
      frames > 0 ? static_cast<double>(figures.bytes) * 8 / 1000 * figures.frameRate / done : 0;
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
