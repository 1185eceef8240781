#pragma once

#include <cstddef>
#include <cstdint>
#include <istream>
#include <string_view>

namespace Quovane::Internal::Qvtp {

/// Takes the body of one message out of its framing (docs/wire-format.md) and never reads a byte beyond it. A malformed
/// chunk is logged at ERROR and ends the body for good; exceptions of the stream pass through.
class InputBuffer {
  public:
    /// The length that stands for a chunked body.
    static constexpr std::uint64_t CHUNKED = ~std::uint64_t{0};

    /// `length`: bytes of the body, or CHUNKED. The stream is not owned.
    InputBuffer(std::uint64_t length, std::istream* stream);

    /// Sets the most bytes that the body may have. False if it is announced as longer. A chunked one throws
    /// QvPipeException when it turns out to be longer, and has ended then.
    bool limit(std::uint64_t maxBytes);
    bool isOverLimit() const { return overLimit_; }

    /// Reads at most `size` bytes, and no more than the current chunk has. 0 is the end of the body.
    std::size_t read(char* buffer, std::size_t size);

    /// How much of `wanted` bytes one read should ask for: all, unless the communication log records what is read. Then
    /// it is a piece, so that a read that fails half way has left its record.
    static std::size_t pieceSize(std::size_t wanted, std::size_t piece);

    /// Whether the stream stands after the whole body, where the next message begins.
    bool isComplete() const;

    /// Whether the whole body is among these bytes, which are the next of the stream. Framing that cannot be read
    /// counts as whole: reading it reports why.
    bool hasArrived(std::string_view bytes) const;
    /// The same for a body of which nothing was read, of this length or CHUNKED. If so, removes it from the bytes:
    /// all of them if the framing cannot be read.
    static bool removeWhole(std::uint64_t length, std::string_view& bytes);

    /// Whether the body came whole and was not longer than this.
    bool isSmallerThan(std::uint64_t size) const {
        return !chunked_ && remaining_ + static_cast<std::uint64_t>(bytes_) < size;
    }

    /// Reads what is there of the rest of the body, or waits for one more byte, and drops it. False if that is more
    /// than `budget`, which it reduces, or if the body ended too early.
    bool skipSome(std::uint64_t& budget);

    /// Does so until the stream stands after the body.
    bool skipRest(std::uint64_t budget);

    /// Goes on with another stream over the same bytes. It is not owned.
    void readFrom(std::istream* stream) { stream_ = stream; }

    /// Ends the body: the stream now belongs to somebody else.
    void detach() { stream_ = nullptr; }

  private:
    bool beginChunk();
    std::size_t readData(char* buffer, std::size_t size);
    bool endChunk();
    bool fail(const char* message);
    [[noreturn]] void failTooLong();
    void logEnd() const;

    std::uint64_t remaining_;
    bool chunked_;
    bool finished_ = false;
    std::istream* stream_;  // not owned
    std::int64_t startTimeMs_ = 0;
    std::int64_t bytes_ = 0;
    bool broken_ = false;
    bool overLimit_ = false;
    std::uint64_t maxBytes_ = ~std::uint64_t{0};
};

}  // namespace Quovane::Internal::Qvtp
