#include "cli/Numbers.h"

#include <algorithm>
#include <cstdlib>
#include <string>

namespace qvtp::cli {

namespace {

/// Without blanks, a sign, or the letters of numbers that are infinite, hexadecimal or none.
bool isDecimal(const std::string& text, const char* characters) {
    const bool isNumber = !text.empty() && text.find_first_not_of(characters) == std::string::npos;
    return isNumber && text.find_first_of("0123456789") != std::string::npos;
}

bool isFraction(const std::string& text, std::int64_t least, std::int64_t most) {
    if (!isDecimal(text, "0123456789.")) return false;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    return *end == '\0' && value >= static_cast<double>(least) && value <= static_cast<double>(most);
}

/// A zero at the front does not make it octal: it is taken away.
bool isWhole(std::string& text, std::int64_t least, std::int64_t most) {
    if (!isDecimal(text, "0123456789")) return false;
    text.erase(0, std::min(text.find_first_not_of('0'), text.size() - 1));
    constexpr std::size_t DIGITS = 18;  // which always fit
    if (text.size() > DIGITS) return false;
    const std::int64_t value = std::stoll(text);
    return value >= least && value <= most;
}

const char* nameOf(Unit unit) {
    return unit == Unit::SECONDS ? "SECONDS" : unit == Unit::BYTES ? "BYTES" : "NUMBER";
}

const char* nounOf(Unit unit) {
    return unit == Unit::SECONDS ? "number of seconds" : unit == Unit::BYTES ? "number of bytes" : "whole number";
}

}  // namespace

CLI::Option* accept(CLI::Option* option, Unit unit, std::int64_t least, std::int64_t most) {
    const auto check = [=](std::string& text) -> std::string {
        const std::string given = text;
        const bool isRight = unit == Unit::SECONDS ? isFraction(text, least, most) : isWhole(text, least, most);
        if (isRight) return {};
        return "\"" + given + "\" is no " + nounOf(unit) + " from " + std::to_string(least) + " to " +
               std::to_string(most) + ".";
    };
    return option->transform(CLI::Validator(check, ""))->type_name(nameOf(unit));
}

}  // namespace qvtp::cli
