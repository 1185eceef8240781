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
/// Both give the same body, of its announced length at most.
inline void readMessage(const std::uint8_t* data, std::size_t size, const std::string& label) {
    using Quovane::Internal::Qvtp::QvtpMessageInImpl;
    using Quovane::Soa::Internal::Common::StringUtils;
    Quovane::Soa::Common::Xml::Utf8String converter;
    const std::string bytes(data, data + size);
    std::string streamed;
    for (const bool byStream : {true, false}) {
        std::istringstream pipe(bytes);
        QvtpMessageInImpl message(&pipe, 16, label, &converter);
        try {
            if (message.getStartLine().empty()) std::abort();
            for (const std::string& name : message.getHeaderNames()) message.getHeaders(name);
            const std::string announced = message.getHeader("Content-Length");
            const int most = StringUtils::toInteger(announced);
            if (byStream) {
                streamed.resize(size + 1);
                std::istream& body = *message.getBodyStream();
                body.read(streamed.data(), static_cast<std::streamsize>(streamed.size()));
                streamed.resize(static_cast<std::size_t>(body.gcount()));
                if (!announced.empty() && most >= 0 && streamed.size() > static_cast<std::size_t>(most)) std::abort();
            }
            if (byStream || most > LARGEST_BLOCK) continue;
            char* body = nullptr;
            std::size_t length = 0;
            message.getBody(&body, length);
            const std::unique_ptr<char[]> block(body);
            if (length > size || body[length] != '\0') std::abort();
            // A negative length is that of no block. A stream knows nothing of it: to it -1 is what marks chunks.
            if ((announced.empty() || most >= 0) && streamed != std::string(body, length)) std::abort();
        } catch (Quovane::Io::QvPipeException&) {
            if (message.getStartLine().empty()) std::abort();
        }
    }
}

}  // namespace qvtp_fuzz
