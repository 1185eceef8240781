#pragma once

#include <CLI/CLI.hpp>

#include <cstdint>

namespace qvtp::cli {

/// What an option with a number takes, and its name in the help. Anything else is wrong usage, in words that name the
/// range.
enum class Unit { SECONDS, NUMBER, BYTES };

constexpr std::int64_t MOST_SECONDS = 2147483;  // what an int holds of milliseconds
constexpr std::int64_t MOST_BYTES = 2147483647;

/// Seconds may have a fraction, all others are whole. Digits are decimal.
CLI::Option* accept(CLI::Option* option, Unit unit, std::int64_t least, std::int64_t most);

/// 0 to what an int holds of milliseconds.
inline CLI::Option* acceptSeconds(CLI::Option* option) {
    return accept(option, Unit::SECONDS, 0, MOST_SECONDS);
}

}  // namespace qvtp::cli
