#pragma once

#include <qvtp/logging/LoggingLevel.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

namespace qvtp_test {

/// Switches logging on for the length of a test and reads back what was written. At its end logging is off.
class LogCapture {
  public:
    using CommunicationLevel = Quovane::Qvtp::CommunicationLevel;
    using LoggingLevel = Quovane::Qvtp::LoggingLevel;

    explicit LogCapture(LoggingLevel level = LoggingLevel::DEBUG,
                        CommunicationLevel commLevel = CommunicationLevel::OFF);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// The diagnostic log as it stands in the file.
    std::string text() const;
    /// The communication log as it stands in the file.
    std::string communication() const;

    /// What each line says, as "LEVEL message", of all threads or of the calling one. Every line is first held against
    /// the whole form that lines have; one that differs comes back unparsed and marked. A message of several lines is
    /// one.
    std::vector<std::string> messages() const;
    std::vector<std::string> messagesOfThisThread() const;
    /// Whether there is this message.
    bool contains(const std::string& message) const;
    /// How many messages are exactly this.
    int count(const std::string& message) const;

    /// Drops what was logged so far.
    void clear();

  private:
    /// A file for each log, and how much of it has been read.
    struct Files {
        Files();
        ~Files();
        Files(const Files&) = delete;
        Files& operator=(const Files&) = delete;

        std::FILE* log;
        std::FILE* communication;
        long logRead = 0;
        long communicationRead = 0;
    };

    std::vector<std::string> parse(const std::string& thread) const;
    void startWritingTo(const Files& files) const;
    void collect() const;

    LoggingLevel level_;
    CommunicationLevel commLevel_;
    mutable std::mutex mutex_;  // guards what follows
    mutable Files files_[2];    // one is written to while the other is read, so that no line is lost
    mutable int current_ = 0;
    mutable std::string text_;
    mutable std::string communication_;
};

/// The handle forms in log lines differ from run to run: every "0x..." becomes "0xH", except the invalid one.
std::string withoutHandles(const std::string& message);
std::vector<std::string> withoutHandles(const std::vector<std::string>& messages);

}  // namespace qvtp_test
