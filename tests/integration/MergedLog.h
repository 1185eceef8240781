#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace qvtp_test {

/// Both logs, written to one file, so that the place of each record among the lines is seen. While it lives, all
/// levels are on.
class MergedLog {
  public:
    enum class Communication { OFF, BOTH };

    explicit MergedLog(Communication communication);
    ~MergedLog();
    MergedLog(const MergedLog&) = delete;
    MergedLog& operator=(const MergedLog&) = delete;

    /// A line of the diagnostic log, or a piece of the communication log that stands between two of them.
    struct Entry {
        std::uint32_t thread = 0;  // 0: of the communication log
        std::string text;
    };

    /// What was written so far, without what differs from run to run: times, handles, rates.
    std::vector<Entry> entries() const;

  private:
    std::FILE* file_;
};

/// As lines of a text file. Those of the communication log begin with a bar; a backslash ends one that goes on.
std::string asText(const std::vector<MergedLog::Entry>& entries);

}  // namespace qvtp_test
