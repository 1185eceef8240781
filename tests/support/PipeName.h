#pragma once

#include <string>

namespace qvtp_test {

/// A pipe name that no other test uses, in this process or another.
std::string uniquePipeName(const std::string& hint = "test");

}  // namespace qvtp_test
