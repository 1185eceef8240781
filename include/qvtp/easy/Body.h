#pragma once
#include <qvtp/easy/Options.h>

namespace qvtp {
/// What a client sends, for the length of one call: nothing is copied or owned. A whole body has up to 2147483647
/// bytes. A streamed one is of any size, and goes out in pieces of 40960.
class Body {
  public:
    /// Fills a part of the buffer, at least one byte, and returns how much; 0 ends the body. May throw.
    using Source = std::function<std::size_t(char* buffer, std::size_t size)>;
    Body(const char* text) : Body(std::string_view(text)) {}
    Body(const std::string& bytes) : Body(std::string_view(bytes)) {}
    Body(std::string_view bytes) : whole_(bytes), total_(static_cast<std::int64_t>(bytes.size())) {}
    /// Streams what is left of the stream. `total`: for the progress alone, -1 if it is not known. A stream that goes
    /// bad before its end is an unknown_outcome: the server has got a part.
    Body(std::istream& stream, std::int64_t total = -1) : total_(total) {
        source_ = [&stream](char* buffer, std::size_t size) -> std::size_t {
            if (stream.eof()) return 0;
            stream.read(buffer, static_cast<std::streamsize>(size));
            if (!stream.fail() || stream.eof()) return static_cast<std::size_t>(stream.gcount());
            throw Error(ErrorKind::unknown_outcome,
                        "The stream of a body has failed before its end. The server may act on what it got.");
        };
    }
    /// Streams what the function gives. For a lambda write Body(lambda).
    explicit Body(Source source, std::int64_t total = -1) : source_(std::move(source)), total_(total) {}
    std::string_view whole() const { return whole_; }
    const Source& source() const { return source_; }  ///< null of a whole body
    std::int64_t total() const { return total_; }

  private:
    std::string_view whole_;
    Source source_;
    std::int64_t total_ = -1;
};
}  // namespace qvtp
