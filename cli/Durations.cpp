#include "cli/Durations.h"

#include <Poco/NumberFormatter.h>

#include <algorithm>
#include <cmath>
#include <map>

namespace qvtp::cli {

namespace {

constexpr int LONGEST_BAR = 40;

std::string number(double value) {
    return Poco::NumberFormatter::format(value, 1);
}

}  // namespace

void Durations::add(const Durations& others) {
    sorted_ = false;
    all_.insert(all_.end(), others.all_.begin(), others.all_.end());
}

void Durations::sort() const {
    if (!sorted_) std::sort(all_.begin(), all_.end());
    sorted_ = true;
}

double Durations::quantile(double part) const {
    if (all_.empty()) return 0;
    sort();
    return all_[static_cast<std::size_t>(std::lround(part * static_cast<double>(all_.size() - 1)))];
}

std::string Durations::summary() const {
    return "min " + number(quantile(0)) + ", median " + number(quantile(0.5)) + ", p90 " + number(quantile(0.9)) +
           ", p99 " + number(quantile(0.99)) + ", max " + number(quantile(1)) + " microseconds";
}

std::string Durations::histogram() const {
    std::map<int, int> counts;  // by the power of two below
    for (const double one : all_) ++counts[one < 1 ? 0 : static_cast<int>(std::log2(one))];
    if (counts.empty()) return {};
    int most = 0;
    for (const auto& [power, count] : counts) most = std::max(most, count);
    std::string lines;
    for (int power = counts.begin()->first; power <= counts.rbegin()->first; ++power) {
        const int count = counts[power];
        const int length = count == 0 ? 0 : std::max(1, count * LONGEST_BAR / most);
        lines += Poco::NumberFormatter::format(power == 0 ? 0 : 1 << power, 9) + " to " +
                 Poco::NumberFormatter::format(2 << power, 9) + " us " + Poco::NumberFormatter::format(count, 9) + " " +
                 std::string(static_cast<std::size_t>(length), '#') + "\n";
    }
    return lines;
}

Json Durations::json() const {
    return {{"count", count()},     {"min", quantile(0)},    {"median", quantile(0.5)},
            {"p90", quantile(0.9)}, {"p99", quantile(0.99)}, {"max", quantile(1)}};
}

}  // namespace qvtp::cli
