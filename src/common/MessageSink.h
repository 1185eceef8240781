#pragma once

#include <cstddef>

namespace Quovane::Internal::Qvtp {

/// The short way of a whole message onto a pipe: an output stream that is also a MessageSink can take head and body
/// from the message's own memory, in one call of the system where that is possible. Failures are those of the stream's
/// buffer, and leave the stream bad.
class MessageSink {
  public:
    virtual ~MessageSink();

    /// Writes the beginning of both blocks, one after the other: at least one byte, after whatever the stream held
    /// back. Returns how many. Quickest where the body lies right after the head.
    virtual std::size_t writeSome(const char* head, std::size_t headLength, const char* body,
                                  std::size_t bodyLength) = 0;
    /// Writes a whole block.
    virtual void writeAll(const char* data, std::size_t length) = 0;
};

}  // namespace Quovane::Internal::Qvtp
