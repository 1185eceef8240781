#include "logging/Logger.h"

#include "common/System.h"
#include "logging/EnvironmentLog.h"
#include "logging/LogLine.h"
#include "logging/LogStep.h"

#include <mutex>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

Logger::LoggingLevel valid(Logger::LoggingLevel level) {
    const int value = static_cast<int>(level);
    return value >= 1 && value <= 4 ? level : Logger::LoggingLevel::OFF;
}

Logger::CommunicationLevel valid(Logger::CommunicationLevel level) {
    const int value = static_cast<int>(level);
    return value >= 1 && value <= 3 ? level : Logger::CommunicationLevel::OFF;
}

using Guard = std::lock_guard<RecursiveMutex>;

// Here, since whoever links the library statically gets this file in any case.
[[maybe_unused]] const bool ENVIRONMENT_IS_READ = (EnvironmentLog::apply(), true);

}  // namespace

Logger& Logger::instance() {
    static Logger* const logger = [] {
        const System::LastErrorGuard lastError;
        return new Logger;
    }();
    return *logger;
}

void Logger::configure(std::FILE* logFile, LoggingLevel level, std::FILE* commFile, CommunicationLevel commLevel) {
    configure(logFile, level, commFile, commLevel, {});
}

void Logger::configure(System::File logFile, LoggingLevel level, System::File commFile, CommunicationLevel commLevel) {
    std::FILE* const log = logFile != nullptr ? logFile.get() : stderr;
    std::FILE* const communication = commFile != nullptr ? commFile.get() : stderr;
    configure(log, level, communication, commLevel, {std::move(logFile), std::move(commFile)});
}

void Logger::configure(std::FILE* logFile, LoggingLevel level, std::FILE* commFile, CommunicationLevel commLevel,
                       Files files) {
    Guard settings(settingsLock_);
    Guard error(lineLocks_[1]), warn(lineLocks_[2]), info(lineLocks_[3]), debug(lineLocks_[4]);
    Guard communication(communicationLock_);
    logFile_ = logFile;
    commFile_ = commFile;
    ownFiles_ = std::move(files);
    level_.store(valid(level), std::memory_order_relaxed);
    commLevel_.store(commFile != nullptr ? valid(commLevel) : CommunicationLevel::OFF, std::memory_order_relaxed);
}

void Logger::writeLine(LoggingLevel level, const std::string& message) {
    if (!isEnabled(level)) return;
    System::LastErrorGuard lastError;
    Guard guard(lineLocks_[static_cast<std::size_t>(level)]);
    if (!isEnabled(level) || logFile_ == nullptr) return;
    logStep([&] {
        const std::string line =
            LogLine::format(level, System::wallClockMs(), System::currentThreadId(), correlationId(), message);
        std::fwrite(line.data(), 1, line.size(), logFile_);
        std::fflush(logFile_);
    });
}

void Logger::writeCommunication(CommunicationLevel direction, const char* data, std::size_t length, bool header) {
    if (!isEnabled(direction)) return;
    System::LastErrorGuard lastError;
    Guard guard(communicationLock_);
    if (!isEnabled(direction) || commFile_ == nullptr) return;
    logStep([&] {
        std::string line;
        if (header) line = LogLine::formatCommunicationHeader(direction, System::wallClockMs(), correlationId());
        if (header) std::fwrite(line.data(), 1, line.size(), commFile_);
        if (length > 0) std::fwrite(data, 1, length, commFile_);
        std::fflush(commFile_);
    });
}

void Logger::setCorrelationId(const std::string& id) {
    System::setThreadText(id);
}

std::string Logger::correlationId() {
    return System::threadText();
}

}  // namespace Quovane::Internal::Qvtp
