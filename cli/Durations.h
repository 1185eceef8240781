#pragma once

#include "cli/Json.h"

#include <string>
#include <vector>

namespace qvtp::cli {

/// How long each of many tries took.
class Durations {
  public:
    void add(double microseconds) { sorted_ = false, all_.push_back(microseconds); }
    void add(const Durations& others);
    std::size_t count() const { return all_.size(); }
    /// 0 is the shortest, 0.5 the median, 1 the longest. 0 if there are none.
    double quantile(double part) const;

    /// "min 10.1, median 12.3, p90 14.0, p99 20.5, max 44.0 microseconds"
    std::string summary() const;
    /// Lines of bars, each twice as wide as the one before it, with a line end each.
    std::string histogram() const;
    Json json() const;

  private:
    void sort() const;

    mutable std::vector<double> all_;
    mutable bool sorted_ = false;
};

}  // namespace qvtp::cli
