#pragma once

#include <istream>
#include <string>
#include <string_view>

namespace Quovane::Internal::Qvtp {

class BodySource;

/// Reads from any stream, or from a body without one. A stream that is bad counts as one at its end; exceptions of the
/// stream pass through.
class StreamUtil {
  public:
    /// What is said when a stream ends before the end of a line.
    static constexpr char NO_LINE[] = "Reached the stream end-of-file before the expected new line.";

    /// Reads one line without its LF or CRLF. Throws InterruptedException if the stream ends before the LF. The line is
    /// where the stream has it, until the next reading from the stream, or in `room`.
    static std::string_view readLine(std::istream& in, std::string& room);
    /// The next character, which stays there, or the end. It leaves the last line where it is.
    static std::istream::int_type peek(std::istream& in);
    /// What the stream has in its buffer: nothing of one that formatted or unformatted input would not read from as it
    /// is. Until the next reading from the stream.
    static std::string_view unread(const std::istream& in);
    /// Takes so much of that out of the stream, where it stays until then.
    static void skip(std::istream& in, std::size_t count);
    /// Takes so many bytes out of the stream's buffer. False, with nothing done, if there are fewer.
    static bool take(std::istream& in, char* buffer, std::size_t size);
    /// Reads exactly `length` bytes into a new block, with a zero byte after them, which the caller frees with
    /// delete[]. 0 and less give an empty block. Throws QvPipeException if the stream ends first (logged at WARN) or if
    /// there is no memory for so much (logged at ERROR).
    static void readLength(std::istream& in, char** out, long length);
    static void readLength(BodySource& source, char** out, long length);
    /// Reads everything up to the end of the stream into such a block and returns the number of bytes. Throws
    /// QvPipeException (logged at ERROR) if there is no memory for more.
    static std::size_t readToEnd(std::istream& in, char** out);
    static std::size_t readToEnd(BodySource& source, char** out);
};

}  // namespace Quovane::Internal::Qvtp
