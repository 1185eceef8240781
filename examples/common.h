#pragma once

#include <qvtp/qvtp.h>

#include <cstdio>
#include <exception>

namespace example {

/// Switches logging on into the files that are named, both optional: events at DEBUG, and the bytes of messages.
inline void logTo(const char* logPath, const char* communicationPath) {
    using namespace Quovane::Qvtp;
    std::FILE* const log = logPath != nullptr ? std::fopen(logPath, "w") : nullptr;
    std::FILE* const communication = communicationPath != nullptr ? std::fopen(communicationPath, "wb") : nullptr;
    QvtpMessage::setLoggingLevel(log, LoggingLevel::DEBUG, communication, CommunicationLevel::BOTH);
}

/// Runs a program's work and turns everything that can be thrown into a message and exit code 1. The two exceptions for
/// misuse are no std::exception and need their own clauses; QvPipeException is one, but has its text in getMessage().
template <typename Work>
int run(const Work& work) {
    using namespace Quovane::Io;
    try {
        work();
        return 0;
    } catch (QvPipeException& e) {
        std::fprintf(stderr, "pipe failure: %s\n", e.getMessage().c_str());
    } catch (const IllegalStateException& e) {
        std::fprintf(stderr, "misuse: %s\n", e.getMessage().c_str());
    } catch (const IllegalArgumentException&) {
        std::fprintf(stderr, "misuse: illegal argument\n");
    } catch (const std::exception& e) {
        std::fprintf(stderr, "failure: %s\n", e.what());
    }
    return 1;
}

}  // namespace example
