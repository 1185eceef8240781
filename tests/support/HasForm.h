#pragma once

#include <gmock/gmock.h>

#include <regex>
#include <string>

namespace qvtp_test {

/// The whole text has this form, a regular expression of ECMAScript. GoogleTest's own matcher knows hardly more than
/// characters and repetition on Windows.
MATCHER_P(HasForm, form, "has the form \"" + std::string(form) + "\"") {
    return std::regex_match(std::string(arg), std::regex(form));
}

}  // namespace qvtp_test
