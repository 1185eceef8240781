#pragma once

#include <qvtp/logging/LoggingLevel.h>
#include <qvtp/message/QvtpMessage.h>

#include <sys/types.h>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string_view>
#include <utility>

namespace qvtp_test {

/// Calls a function with each line of the log, on the thread that writes it and while it does: a test can hold a thread
/// there, or do something at that very moment. The function must not log at the level of its line. The hook itself
/// needs no memory.
class LogHook {
  public:
    using LoggingLevel = Quovane::Qvtp::LoggingLevel;
    using Function = std::function<void(std::string_view line)>;

    LogHook(LoggingLevel level, Function function) : function_(std::move(function)) {
        cookie_io_functions_t functions{};
        functions.write = &write;
        file_ = ::fopencookie(this, "w", functions);
        if (file_ == nullptr) std::abort();
        set(file_, level);
    }
    ~LogHook() {
        set(nullptr, LoggingLevel::OFF);
        std::fclose(file_);
    }
    LogHook(const LogHook&) = delete;
    LogHook& operator=(const LogHook&) = delete;

  private:
    static void set(std::FILE* file, LoggingLevel level) {
        Quovane::Qvtp::QvtpMessage::setLoggingLevel(file, level, nullptr, Quovane::Qvtp::CommunicationLevel::OFF);
    }
    static ssize_t write(void* hook, const char* data, std::size_t size) {
        static_cast<LogHook*>(hook)->function_({data, size});
        return static_cast<ssize_t>(size);
    }

    const Function function_;
    std::FILE* file_ = nullptr;
};

}  // namespace qvtp_test
