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

/// Runs a program's work and turns everything that can be thrown into a message and exit code 1.
template <typename Work>
int run(const Work& work) {
    using namespace Quovane::Io;
    try {
        work();
        return 0;
    } catch (QvPipeException& e) {  // is a std::exception, but has its text in getMessage(), which is not const
        std::fprintf(stderr, "pipe failure: %s\n", e.getMessage().c_str());
    } catch (const IllegalStateException& e) {
        // Is no std::exception. Misuse; or, if it says "already been committed", a connection that broke after the head
        // of a request was sent: the server may have acted on it or not.
        std::fprintf(stderr, "misuse: %s\n", e.getMessage().c_str());
    } catch (const IllegalArgumentException&) {  // is no std::exception either
        std::fprintf(stderr, "misuse: illegal argument\n");
    } catch (const std::exception& e) {  // sees neither of the two above
        std::fprintf(stderr, "failure: %s\n", e.what());
    }
    return 1;
}

}  // namespace example
