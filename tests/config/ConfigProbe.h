#pragma once

#include "support/Process.h"

#include <gtest/gtest.h>

#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace qvtp_test {

constexpr char DEFAULT_CLIENT[] = "client 60000 10000 40960 QvtpClient";
constexpr char DEFAULT_SERVER[] = "server 5 0 13000 3000 4096 QvtpServer";
constexpr char NO_CONFIGURATION[] = "DEBUG QvtpConfiguration not available.";

/// What a probe printed, line by line, log lines as "LEVEL message".
inline std::vector<std::string> linesOf(const std::string& output) {
    static const std::regex logLine("(\\w+) +- .* UTC - Thread-\\d+:  - (.*)- Quovane\\.SOA\\.Qvtp");
    std::vector<std::string> lines;
    std::istringstream in(output);
    for (std::string line; std::getline(in, line);) {
        std::smatch match;
        const bool isLog = std::regex_match(line, match, logLine);
        lines.push_back(isLog ? match[1].str() + " " + match[2].str() : line);
    }
    return lines;
}

/// Runs config_probe, or a copy of it. Its output goes into a file in the directory.
inline std::vector<std::string> runProbe(const std::string& program, const std::vector<std::string>& arguments,
                                         const std::string& directory) {
    const std::string output = directory + "/output.txt";
    EXPECT_EQ(Process(program, arguments, output).wait(), 0);
    return linesOf(contentsOfFile(output));
}

}  // namespace qvtp_test
