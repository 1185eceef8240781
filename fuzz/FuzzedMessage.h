#pragma once

#include <qvtp/io/QvPipeException.h>

#include "common/StringUtils.h"
#include "message/QvtpMessageInImpl.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <sstream>
#include <string>

namespace qvtp_fuzz {

/// Above this a body of known length is read as a stream only: the block for it is allocated before its bytes come.
constexpr int LARGEST_BLOCK = 1 << 20;

/// Reads the bytes as one message of this kind, by stream and as a block. Only the transport's exceptions may come out.
inline void readMessage(const std::uint8_t* data, std::size_t size, const std::string& label) {
    using Quovane::Internal::Qvtp::QvtpMessageInImpl;
    using Quovane::Soa::Internal::Common::StringUtils;
    Quovane::Soa::Common::Xml::Utf8String converter;
    const std::string bytes(data, data + size);
    for (const bool byStream : {true, false}) {
        std::istringstream pipe(bytes);
        QvtpMessageInImpl message(&pipe, 16, label, &converter);
        try {
            if (message.getStartLine().empty()) std::abort();
            for (const std::string& name : message.getHeaderNames()) message.getHeaders(name);
            if (byStream || StringUtils::toInteger(message.getHeader("Content-Length")) > LARGEST_BLOCK) {
                message.getBodyStream()->ignore(static_cast<std::streamsize>(size) + 1);
                continue;
            }
            char* body = nullptr;
            std::size_t length = 0;
            message.getBody(&body, length);
            const std::unique_ptr<char[]> block(body);
            if (length > size || body[length] != '\0') std::abort();
        } catch (Quovane::Io::QvPipeException&) {
            if (message.getStartLine().empty()) std::abort();
        }
    }
}

}  // namespace qvtp_fuzz
