#pragma once

#include <qvtp/easy.h>

#include <chrono>

namespace qvtp::cli {

/// How far a large body has come, on standard error, if a person looks at it.
class ProgressBar {
  public:
    /// `isWanted` false: never. `label`: "sent" or "received".
    ProgressBar(bool isWanted, const char* label);
    ProgressBar(const ProgressBar&) = delete;
    ProgressBar& operator=(const ProgressBar&) = delete;
    /// Leaves the line empty.
    ~ProgressBar();

    void show(const Progress& progress);
    /// Makes room for what is printed next.
    void hide();

  private:
    using Clock = std::chrono::steady_clock;

    const bool isWanted_;
    const char* const label_;
    const Clock::time_point begin_ = Clock::now();
    Clock::time_point last_ = begin_;
    bool isShown_ = false;
};

}  // namespace qvtp::cli
