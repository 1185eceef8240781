#pragma once

#include <qvtp/Export.h>
#include <qvtp/logging/LoggingLevel.h>

#include <cstdint>
#include <cstdio>
#include <map>
#include <string>

namespace Quovane::Qvtp {

/// The base of every message, and the protocol's vocabulary. The constants exist from the loading of the library to its
/// unloading and any thread may read them.
class QVTP_API QvtpMessage {
  public:
    // Methods.
    static const std::string METHOD_POST;    ///< a request that expects a response
    static const std::string METHOD_NOTIFY;  ///< a request that does not
    static const std::string METHOD_NONE;    ///< what is reported for a request that could not be read

    // Header names, and the values of HEADER_TRANSFER_ENCODING.
    static const std::string HEADER_CONTENT_LENGTH;
    static const std::string HEADER_TRANSFER_ENCODING;
    static const std::string HEADER_IDENTITY_ENCODING;
    static const std::string HEADER_CHUNKED_ENCODING;
    static const std::string HEADER_USER_AGENT;  ///< every request carries it
    static const std::string HEADER_SERVER;      ///< every response carries it

    // Status codes.
    static const std::int32_t STATUS_OK = 200;
    static const std::int32_t STATUS_BAD_REQUEST = 400;
    static const std::int32_t STATUS_NOT_FOUND = 404;
    static const std::int32_t STATUS_REQUEST_TIMEOUT = 408;
    static const std::int32_t STATUS_LENGTH_REQUIRED = 411;
    static const std::int32_t STATUS_ENTITY_LONG = 413;
    static const std::int32_t STATUS_RESOURCE_ID_LONG = 414;
    static const std::int32_t STATUS_SERVER_ERROR = 500;
    static const std::int32_t STATUS_NOT_IMPLEMENTED = 501;
    static const std::int32_t STATUS_VERSION_NOT_SUPPORTED = 505;

    /// The reason phrase of each of the ten codes above, and of no other.
    static const std::map<std::int32_t, std::string> STATUS_REASONS;

    /// Sets up logging for the whole process; until then it is off. Any thread may call it at any time.
    ///
    /// `logFile` receives one line for every event of `level` or a more serious one; null switches it off. `commFile`
    /// receives the bytes of messages in the directions of `commLevel`; null switches it off. Values outside the
    /// enumerations mean OFF. The files stay the caller's: the library writes to them and flushes, and does not
    /// close them. Those that QVTP_LOG and QVTP_COMMUNICATION_LOG name are its own: it has opened them before, and
    /// closes them in the first call. When the call returns, the files of the call before are no longer used.
    /// docs/log-format.md describes the lines.
    static void setLoggingLevel(std::FILE* logFile, LoggingLevel level, std::FILE* commFile,
                                CommunicationLevel commLevel);

    /// Sets the text that the calling thread's lines carry from now on, so that the lines of one request can be found
    /// across threads. Empty at the start of every thread.
    static void setLogCorrelationId(const std::string& id);

    /// May throw in requests, which give their pipe back then; no other message does.
    virtual ~QvtpMessage() noexcept(false);

  protected:
    QvtpMessage();
};

}  // namespace Quovane::Qvtp
