#include "message/StreamUtil.h"

#include <qvtp/io/InterruptedException.h>
#include <qvtp/io/QvPipeException.h>

#include "logging/Log.h"
#include "message/BodySource.h"

#include <algorithm>
#include <limits>
#include <memory>
#include <new>
#include <streambuf>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

constexpr std::size_t INITIAL_CAPACITY = 40960;
constexpr std::size_t MOST_SKIPPED = std::numeric_limits<int>::max();  // at once, as stream buffers have it

/// What a stream has in its buffer. The members that show it are protected, and the same for every kind of buffer.
class Area : private std::streambuf {
  public:
    static std::string_view unread(const std::istream& in) {
        const std::streambuf* const buffer = in.rdbuf();
        if (!in.good() || in.tie() != nullptr || buffer == nullptr) return {};
        const char* const next = (buffer->*&Area::gptr)();
        return {next, static_cast<std::size_t>((buffer->*&Area::egptr)() - next)};
    }
    static void skip(std::istream& in, std::size_t count) { (in.rdbuf()->*&Area::gbump)(static_cast<int>(count)); }
};

/// Takes a line out of the stream's buffer. Not the last one there: what follows it can then be looked at without
/// moving it.
bool takeLine(std::istream& in, std::string_view& line) {
    const std::string_view there = Area::unread(in);
    const std::size_t end = there.find('\n');
    if (end == std::string_view::npos || end + 1 == there.size()) return false;
    line = there.substr(0, end);
    Area::skip(in, end + 1);
    return true;
}

/// Null if there is no memory for it. The peer chose the length, so that is a failure of its message, not of the
/// program.
std::unique_ptr<char[]> newBlock(std::size_t length) {
    return std::unique_ptr<char[]>(new (std::nothrow) char[length + 1]);
}

std::unique_ptr<char[]> newGrowingBlock(std::size_t capacity, std::size_t filled) {
    std::unique_ptr<char[]> block = newBlock(capacity);
    if (block == nullptr) {
        logErrorAndThrow<Io::QvPipeException>(
            text("Not enough memory for a body of which ", filled, " bytes were read."));
    }
    return block;
}

/// A stream reads as much as was asked for, unless it ends.
std::size_t readFrom(std::istream& in, char* buffer, std::size_t size) {
    in.read(buffer, static_cast<std::streamsize>(size));
    return static_cast<std::size_t>(in.gcount());
}

std::size_t readFrom(BodySource& source, char* buffer, std::size_t size) {
    return source.read(buffer, size);
}

template <typename Source>
void readLengthFrom(Source& in, char** out, long length) {
    const std::size_t size = length > 0 ? static_cast<std::size_t>(length) : 0;
    std::unique_ptr<char[]> block = newBlock(size);
    if (block == nullptr) {
        logErrorAndThrow<Io::QvPipeException>(text("Not enough memory for a body of ", size, " bytes."));
    }
    std::size_t filled = 0;
    while (filled < size && in.good()) filled += readFrom(in, block.get() + filled, size - filled);
    if (filled < size) {
        const std::string message = "Reached the stream end-of-file before the expected length.";
        logWarn(message);
        throw Io::QvPipeException(message);
    }
    block[size] = '\0';
    *out = block.release();
}

template <typename Source>
std::size_t readToEndOf(Source& in, char** out) {
    std::size_t capacity = INITIAL_CAPACITY;
    std::size_t filled = 0;
    std::unique_ptr<char[]> block = newGrowingBlock(capacity, filled);
    while (in.good()) {
        if (filled == capacity) {
            capacity *= 2;
            std::unique_ptr<char[]> larger = newGrowingBlock(capacity, filled);
            std::copy_n(block.get(), filled, larger.get());
            block = std::move(larger);
        }
        filled += readFrom(in, block.get() + filled, capacity - filled);
    }
    block[filled] = '\0';
    *out = block.release();
    return filled;
}

}  // namespace

std::string_view StreamUtil::readLine(std::istream& in, std::string& room) {
    if (in.fail() && !in.bad() && !in.eof()) in.clear();  // what failed before has taken nothing away
    peek(in);                                             // has the stream fill its buffer
    std::string_view line;
    if (!takeLine(in, line)) {
        if (!in.bad()) std::getline(in, room);  // a bad stream may throw again at every use
        if (in.eof() || in.fail()) throw Io::InterruptedException(NO_LINE);
        line = room;
    }
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    return line;
}

std::istream::int_type StreamUtil::peek(std::istream& in) {
    using Traits = std::istream::traits_type;
    const std::string_view there = Area::unread(in);
    if (!there.empty()) return Traits::to_int_type(there.front());
    return in.bad() ? Traits::eof() : in.peek();
}

std::string_view StreamUtil::unread(const std::istream& in) {
    return Area::unread(in);
}

void StreamUtil::skip(std::istream& in, std::size_t count) {
    Area::skip(in, count);
}

bool StreamUtil::take(std::istream& in, char* buffer, std::size_t size) {
    const std::string_view there = Area::unread(in);
    if (there.empty() || there.size() < size || size > MOST_SKIPPED) return false;
    there.copy(buffer, size);
    Area::skip(in, size);
    return true;
}

void StreamUtil::readLength(std::istream& in, char** out, long length) {
    readLengthFrom(in, out, length);
}

void StreamUtil::readLength(BodySource& source, char** out, long length) {
    readLengthFrom(source, out, length);
}

std::size_t StreamUtil::readToEnd(std::istream& in, char** out) {
    return readToEndOf(in, out);
}

std::size_t StreamUtil::readToEnd(BodySource& source, char** out) {
    return readToEndOf(source, out);
}

}  // namespace Quovane::Internal::Qvtp
