#include "cli/ProgressBar.h"

#include "cli/Terminal.h"

#include <cstdio>
#include <string>

namespace qvtp::cli {

namespace {

constexpr std::uint64_t SMALLEST_BODY = 1 << 20;
constexpr auto PAUSE = std::chrono::milliseconds(100);
constexpr int WIDTH = 30;
constexpr double MIB = 1 << 20;

std::string barOf(const Progress& progress) {
    const auto total = static_cast<double>(progress.total);
    const int filled = progress.total > 0 ? static_cast<int>(static_cast<double>(progress.bytes) / total * WIDTH) : 0;
    std::string bar = "[";
    for (int i = 0; i < WIDTH; ++i) bar += i < filled ? '=' : ' ';
    return bar + "]";
}

}  // namespace

ProgressBar::ProgressBar(bool isWanted, const char* label)
    : isWanted_(isWanted && Terminal::showsErrors()), label_(label) {}

ProgressBar::~ProgressBar() {
    hide();
}

void ProgressBar::hide() {
    if (isShown_) std::fputs("\r\x1b[K", stderr);
    isShown_ = false;
}

void ProgressBar::show(const Progress& progress) {
    const Clock::time_point now = Clock::now();
    if (!isWanted_ || progress.bytes < SMALLEST_BODY || (isShown_ && now - last_ < PAUSE)) return;
    isShown_ = true;
    last_ = now;
    const double mib = static_cast<double>(progress.bytes) / MIB;
    const double seconds = std::chrono::duration<double>(now - begin_).count();
    std::fprintf(stderr, "\r\x1b[K%s %s %.1f", progress.total > 0 ? barOf(progress).c_str() : "", label_, mib);
    if (progress.total > 0) std::fprintf(stderr, " of %.1f", static_cast<double>(progress.total) / MIB);
    std::fprintf(stderr, " MiB, %.1f MiB/s", mib / (seconds > 0 ? seconds : 1));
    std::fflush(stderr);
}

}  // namespace qvtp::cli
