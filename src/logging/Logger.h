#pragma once

#include <qvtp/logging/LoggingLevel.h>

#include "common/RecursiveMutex.h"

#include <atomic>
#include <cstddef>
#include <cstdio>
#include <string>

namespace Quovane::Internal::Qvtp {

/// The process-wide logger: its settings and the writing of lines and records. Created on first use and never freed, so
/// that destructors of static objects may still log.
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

    LoggingLevel level() const { return level_.load(std::memory_order_relaxed); }
    bool isEnabled(LoggingLevel level) const { return this->level() >= level; }
    bool isEnabled(CommunicationLevel direction) const;

    /// Writes one line if the level is on and there is a file.
    void writeLine(LoggingLevel level, const std::string& message);
    /// Writes one record if its direction is on and there is a file.
    void writeCommunication(CommunicationLevel direction, const char* data, std::size_t length, bool header);

    /// The calling thread's correlation id.
    static void setCorrelationId(const std::string& id);
    static std::string correlationId();

  private:
    Logger() = default;
    ~Logger() = delete;

    static constexpr std::size_t LEVELS = 5;

    RecursiveMutex settingsLock_;       // held while the settings change
    RecursiveMutex lineLocks_[LEVELS];  // one per level; guards logFile_
    RecursiveMutex communicationLock_;  // guards commFile_; keeps a record's header and bytes together
    std::FILE* logFile_ = nullptr;      // not owned
    std::FILE* commFile_ = nullptr;     // not owned
    std::atomic<LoggingLevel> level_{LoggingLevel::OFF};
    std::atomic<CommunicationLevel> commLevel_{CommunicationLevel::OFF};
};

}  // namespace Quovane::Internal::Qvtp
