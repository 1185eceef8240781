#pragma once

#include "common/OWriter.h"

#include <cstddef>
#include <ostream>
#include <vector>

namespace Quovane::Soa::Internal::Common {

/// Collects written bytes in one buffer and passes full buffers to a stream, plain or each framed as one chunk
/// (docs/wire-format.md). A block that would fill the whole buffer goes out of the caller's memory without a copy,
/// in the same pieces. Failures of the stream are the stream's own exceptions.
class OBufferWriter : public OWriter {
  public:
    /// The stream is not owned. A buffer size below 1 is used as 1.
    OBufferWriter(std::ostream* out, int bufferSize, bool chunked);
    ~OBufferWriter() override;

    int write(const char* data, long long length) override;
    /// Writes out what is buffered and flushes the stream.
    void flush() override;
    /// Writes out what is buffered and, when chunked, the last chunk; flushes the stream.
    void send() override;

  private:
    void writeOut(const char* data, std::size_t length);
    void writeBuffered();

    std::ostream* out_;  // not owned
    bool chunked_;
    std::size_t capacity_;
    std::vector<char> buffer_;
};

}  // namespace Quovane::Soa::Internal::Common
