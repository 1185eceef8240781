#pragma once

#include <qvtp/logging/LoggingLevel.h>

#include "common/RecursiveMutex.h"
#include "common/System.h"

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <string>

namespace Quovane::Internal::Qvtp {

/// The process-wide logger: its settings and the writing of lines and records. Created on first use and never freed, so
/// that destructors of static objects may still log. The levels can be asked for without it: until it was configured
/// there is nothing to log, and no memory is needed to know that.
class Logger {
  public:
    using CommunicationLevel = Quovane::Qvtp::CommunicationLevel;
    using LoggingLevel = Quovane::Qvtp::LoggingLevel;

    static Logger& instance();

    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    /// Replaces all settings; unknown levels become OFF, and without a communication file its level is OFF. When it
    /// returns, no thread writes to the former files any more, so they may be closed.
    void configure(std::FILE* logFile, LoggingLevel level, std::FILE* commFile, CommunicationLevel commLevel);
    /// The same with files that are the logger's own, until the settings are replaced. Standard error where there is
    /// none.
    void configure(System::File logFile, LoggingLevel level, System::File commFile, CommunicationLevel commLevel);

    static LoggingLevel level() { return level_.load(std::memory_order_relaxed); }
    static bool isEnabled(LoggingLevel level) { return Logger::level() >= level; }
    static bool isEnabled(CommunicationLevel direction) {
        const int current = static_cast<int>(commLevel_.load(std::memory_order_relaxed));
        return (current & static_cast<int>(direction)) != 0;
    }

    /// Writes one line if the level is on and there is a file. Drops it if there is no memory for it.
    void writeLine(LoggingLevel level, const std::string& message);
    /// Writes one record if its direction is on and there is a file. Drops it if there is no memory for its header.
    void writeCommunication(CommunicationLevel direction, const char* data, std::size_t length, bool header);

    /// The calling thread's correlation id.
    static void setCorrelationId(const std::string& id);
    static std::string correlationId();

  private:
    Logger() = default;
    ~Logger() = delete;

    static constexpr std::size_t LEVELS = 5;

    struct Files {
        System::File log;
        System::File communication;
    };

    void configure(std::FILE* logFile, LoggingLevel level, std::FILE* commFile, CommunicationLevel commLevel,
                   Files files);

    RecursiveMutex settingsLock_;       // held while the settings change
    RecursiveMutex lineLocks_[LEVELS];  // one per level; guards logFile_
    RecursiveMutex communicationLock_;  // guards commFile_; keeps a record's header and bytes together
    std::FILE* logFile_ = nullptr;
    std::FILE* commFile_ = nullptr;
    Files ownFiles_;  // those of the former two that are the logger's
    static inline std::atomic<LoggingLevel> level_{LoggingLevel::OFF};
    static inline std::atomic<CommunicationLevel> commLevel_{CommunicationLevel::OFF};
};

}  // namespace Quovane::Internal::Qvtp
