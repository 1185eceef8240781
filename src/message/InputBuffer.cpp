#include "message/InputBuffer.h"

#include <qvtp/io/QvPipeException.h>

#include "common/StringUtils.h"
#include "common/System.h"
#include "common/Text.h"
#include "common/WireSyntax.h"
#include "logging/Log.h"
#include "message/StreamUtil.h"
#include "message/Throughput.h"

#include <algorithm>

namespace Quovane::Internal::Qvtp {

using Quovane::Soa::Internal::Common::StringUtils;

namespace {

constexpr std::size_t SIZE_LINE_CAPACITY = 20;  // at most 19 characters before the line feed
constexpr std::size_t SKIP_PIECE = 4096;

}  // namespace

InputBuffer::InputBuffer(std::uint64_t length, std::istream* stream)
    : remaining_(length == CHUNKED ? 0 : length), chunked_(length == CHUNKED), stream_(stream) {}

bool InputBuffer::limit(std::uint64_t maxBytes) {
    maxBytes_ = maxBytes;
    return chunked_ || remaining_ <= maxBytes;
}

void InputBuffer::failTooLong() {
    broken_ = true;
    overLimit_ = true;
    throw Quovane::Io::QvPipeException(text("The body is longer than ", maxBytes_, " bytes."));
}

std::size_t InputBuffer::read(char* buffer, std::size_t size) {
    if (finished_ || broken_ || stream_ == nullptr) return 0;
    if (startTimeMs_ == 0 && isDebugEnabled()) startTimeMs_ = System::wallClockMs();
    if (chunked_ && remaining_ == 0 && !beginChunk()) return 0;

    std::size_t count = 0;
    if (remaining_ == 0) {
        finished_ = true;  // the last chunk, or a body of length 0
    } else {
        count = readData(buffer, size);
        if (remaining_ == 0 && !chunked_) finished_ = true;
    }
    if (chunked_ && remaining_ == 0 && !endChunk()) return 0;
    if (finished_) logEnd();
    return count;
}

// A stream that is bad may throw again at every use: it is not touched any more, and taken as one at its end.

/// Reads a chunk-size line.
bool InputBuffer::beginChunk() {
    char line[SIZE_LINE_CAPACITY] = {};
    if (!stream_->bad()) stream_->getline(line, sizeof line);
    // The line lacks its line feed also when the stream ended after its last character.
    if (stream_->fail() || stream_->eof()) {
        // A line that is too long leaves a failure on the stream, which has more to give to whoever reads it next.
        if (!stream_->eof() && !stream_->bad()) stream_->clear();
        return fail("InputBuffer::read(): invalid chunksize line");
    }
    std::uint32_t size = 0;
    if (!StringUtils::scanHexadecimal(line, size)) return fail("InputBuffer::read(): invalid chunksize line");
    if (size > maxBytes_ - static_cast<std::uint64_t>(bytes_)) failTooLong();
    remaining_ = size;
    return true;
}

std::size_t InputBuffer::readData(char* buffer, std::size_t size) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size, remaining_));
    std::size_t count = StreamUtil::take(*stream_, buffer, wanted) ? wanted : 0;
    while (count == 0 && stream_->good()) {
        stream_->read(buffer, static_cast<std::streamsize>(wanted));
        count = static_cast<std::size_t>(stream_->gcount());
    }
    remaining_ -= count;
    bytes_ += static_cast<std::int64_t>(count);
    if (count > 0) logCommunication(CommunicationLevel::INPUT, buffer, count, false);
    return count;
}

/// Reads the line end after a chunk's data.
bool InputBuffer::endChunk() {
    char lineEnd[WireSyntax::LINE_END.size()] = {};
    if (!stream_->bad()) stream_->read(lineEnd, sizeof lineEnd);
    if (stream_->good() && std::string_view(lineEnd, sizeof lineEnd) == WireSyntax::LINE_END) return true;
    return fail("Bad end of chunk");
}

bool InputBuffer::fail(const char* message) {
    broken_ = true;
    logError(message);
    return false;
}

void InputBuffer::logEnd() const {
    logDebug([&] {
        const std::int64_t nowMs = System::wallClockMs();
        const std::int64_t startMs = startTimeMs_ != 0 ? startTimeMs_ : nowMs;  // not known if the level was off then
        return Throughput::describeRead(bytes_, startMs, nowMs);
    });
    logCommunication(CommunicationLevel::INPUT, "\n", 1, false);
}

std::size_t InputBuffer::pieceSize(std::size_t wanted, std::size_t piece) {
    return isCommunicationEnabled(CommunicationLevel::INPUT) ? std::min(wanted, piece) : wanted;
}

bool InputBuffer::isComplete() const {
    const bool isEmpty = !chunked_ && remaining_ == 0;
    return (finished_ || isEmpty) && !broken_;
}

bool InputBuffer::hasArrived(std::string_view bytes) const {
    return removeWhole(chunked_ ? CHUNKED : remaining_, bytes);
}

bool InputBuffer::removeWhole(std::uint64_t length, std::string_view& bytes) {
    if (length != CHUNKED) {
        if (bytes.size() < length) return false;
        bytes.remove_prefix(length);
        return true;
    }
    for (;;) {
        const std::size_t lineEnd = bytes.substr(0, SIZE_LINE_CAPACITY).find('\n');
        const bool isLineWhole = lineEnd != std::string_view::npos;
        if (!isLineWhole && bytes.size() < SIZE_LINE_CAPACITY) return false;
        std::uint32_t size = 0;
        if (!isLineWhole || !StringUtils::scanHexadecimal(bytes.substr(0, lineEnd), size)) {
            bytes = {};
            return true;
        }
        bytes.remove_prefix(lineEnd + 1);
        const std::uint64_t whole = std::uint64_t{size} + WireSyntax::LINE_END.size();
        if (bytes.size() < whole) return false;
        bytes.remove_prefix(whole);
        if (size == 0) return true;
    }
}

bool InputBuffer::skipSome(std::uint64_t& budget) {
    if (broken_ || stream_ == nullptr || (!chunked_ && remaining_ > budget)) return false;
    char dropped[SKIP_PIECE];
    const std::streamsize there = stream_->rdbuf()->in_avail();
    const auto size = static_cast<std::size_t>(std::clamp<std::streamsize>(there, 1, sizeof dropped));
    const std::size_t count = read(dropped, size);
    if (count > budget || (count == 0 && !isComplete())) return false;
    budget -= count;
    return true;
}

bool InputBuffer::skipRest(std::uint64_t budget) {
    while (!isComplete()) {
        if (!skipSome(budget)) return false;
    }
    return true;
}

}  // namespace Quovane::Internal::Qvtp
