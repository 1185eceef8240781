#include "server/LimitedInput.h"

#include <qvtp/io/PipeBufferBase.h>
#include <qvtp/io/QvPipeException.h>
#include <qvtp/io/TimeoutException.h>
#include <qvtp/message/QvtpMessage.h>

#include "common/Text.h"
#include "io/PipeControl.h"
#include "message/InputBuffer.h"

#include <algorithm>
#include <limits>

namespace Quovane::Internal::Qvtp {

using Quovane::Io::QvPipeException;
using Quovane::Io::TimeoutException;
using Quovane::Qvtp::QvtpMessage;

namespace {

constexpr std::streamsize DIRECT_READ = 4096;  // less comes through the area of the source

/// Sets the read time-out of a pipe for one read.
class ReadTimeout {
  public:
    ReadTimeout(Quovane::Io::QvPipe& pipe, int timeoutMs) : pipe_(pipe), before_(pipe.getReadTimeout()) {
        pipe_.setReadTimeout(timeoutMs);
    }
    ~ReadTimeout() { pipe_.setReadTimeout(before_); }
    ReadTimeout(const ReadTimeout&) = delete;
    ReadTimeout& operator=(const ReadTimeout&) = delete;

  private:
    Quovane::Io::QvPipe& pipe_;
    const int before_;
};

}  // namespace

LimitedInput::LimitedInput(std::istream& source, QvPipe& pipe, const Limits& limits)
    : std::istream(nullptr), buffer_(*source.rdbuf(), pipe, limits), limits_(limits) {
    rdbuf(&buffer_);
    exceptions(std::ios_base::badbit);
}

bool LimitedInput::isAny(const Limits& limits) {
    return limits.headBytes > 0 || limits.headers > 0 || limits.bodyBytes > 0 || limits.headMs > 0 ||
           limits.requestMs > 0;
}

bool LimitedInput::endHead(InputBuffer& body) {
    buffer_.endHead();
    if (limits_.bodyBytes <= 0 || body.limit(static_cast<std::uint64_t>(limits_.bodyBytes))) return true;
    refuseBody();
    return false;
}

void LimitedInput::refuseBody() {
    buffer_.exceed(QvtpMessage::STATUS_ENTITY_LONG, text("The body is longer than ", limits_.bodyBytes, " bytes."));
}

LimitedInput::Buffer::Buffer(std::streambuf& source, QvPipe& pipe, const Limits& limits)
    : source_(source),
      pipe_(pipe),
      isPipe_(dynamic_cast<Quovane::Io::PipeBufferBase<char>*>(&source) != nullptr),
      limits_(limits) {}

bool LimitedInput::Buffer::isPost() const {
    return method_ == QvtpMessage::METHOD_POST + " ";
}

/// The first limit counts.
void LimitedInput::Buffer::exceed(int code, const std::string& what) {
    if (status != 0) return;
    status = code;
    reason = what;
}

void LimitedInput::Buffer::fail(int code, const std::string& what) {
    exceed(code, what);
    throw QvPipeException(reason);
}

void LimitedInput::Buffer::countHeadByte() {
    if (limits_.headBytes <= 0) return;
    if (headBytes_ == limits_.headBytes) {
        fail(inStartLine_ ? QvtpMessage::STATUS_RESOURCE_ID_LONG : QvtpMessage::STATUS_BAD_REQUEST,
             text("The head is longer than ", limits_.headBytes, " bytes."));
    }
    ++headBytes_;
}

void LimitedInput::Buffer::countHead(char c) {
    countHeadByte();
    if (c == '\n') {
        if (!lineIsEmpty_) inStartLine_ = false;  // empty lines may stand before the start line
        lineIsEmpty_ = true;
        heldReturn_ = false;
    } else if (lineIsEmpty_ && !heldReturn_ && c == '\r') {
        heldReturn_ = true;  // the line is empty if its end follows
    } else {
        if (lineIsEmpty_) beginLine(heldReturn_ ? '\r' : c);
        if (inStartLine_ && lineIsEmpty_ && heldReturn_) method_ += '\r';
        lineIsEmpty_ = false;
        if (inStartLine_ && method_.size() <= QvtpMessage::METHOD_POST.size()) method_ += c;
    }
}

/// Lines are seen as the parser sees them, which drops one carriage return before the end of a line: a line that begins
/// with one and has more is neither empty nor does it continue another.
void LimitedInput::Buffer::beginLine(char c) {
    const bool continues = headers_ > 0 && (c == ' ' || c == '\t');
    const bool isHeader = !inStartLine_ && !continues;
    if (!isHeader || limits_.headers <= 0) return;
    if (headers_ == limits_.headers) {
        fail(QvtpMessage::STATUS_BAD_REQUEST, text("The head has more than ", limits_.headers, " headers."));
    }
    ++headers_;
}

LimitedInput::Buffer::Clock::time_point LimitedInput::Buffer::end() const {
    const bool headCounts = inHead_ && limits_.headMs > 0;
    const bool requestCounts = limits_.requestMs > 0;
    const int limitMs = headCounts && requestCounts ? std::min(limits_.headMs, limits_.requestMs)
                        : headCounts                ? limits_.headMs
                                                    : limits_.requestMs;
    return begin_ + std::chrono::milliseconds(limitMs);
}

void LimitedInput::Buffer::failLate() {
    const bool headIsLate =
        inHead_ && limits_.headMs > 0 && (limits_.requestMs <= 0 || limits_.headMs <= limits_.requestMs);
    fail(QvtpMessage::STATUS_REQUEST_TIMEOUT, headIsLate
                                                  ? text("The head takes longer than ", limits_.headMs, " ms.")
                                                  : text("The request takes longer than ", limits_.requestMs, " ms."));
}

/// When the time is over, only what has come by then may still be read: it was in time, and only its reader was not.
void LimitedInput::Buffer::noteLate() {
    if (!late_) arrived_ = PipeControl::available(pipe_);
    late_ = true;
    if (arrived_ == 0) failLate();
}

/// For one read of the pipe.
int LimitedInput::Buffer::limitedTimeout() {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end() - Clock::now()).count();
    if (left <= 0) noteLate();
    const int leftMs = static_cast<int>(std::max<std::chrono::milliseconds::rep>(left, 1));
    const int pauseMs = pipe_.getReadTimeout();
    return pauseMs > 0 ? std::min(pauseMs, leftMs) : leftMs;
}

/// One read of the pipe, within what is left of the time. `read` returns how many bytes it has brought.
template <typename Read>
std::streamsize LimitedInput::Buffer::timed(const Read& read) {
    try {
        const ReadTimeout timeout(pipe_, limitedTimeout());
        const std::streamsize count = read();
        if (late_ && count > 0) arrived_ -= std::min(arrived_, static_cast<std::size_t>(count));
        return count;
    } catch (TimeoutException&) {
        if (Clock::now() >= end()) failLate();
        throw;  // a shorter time-out of the server
    }
}

/// Brings something into the area of the source. False at its end.
bool LimitedInput::Buffer::fillArea() {
    if (source_.in_avail() > 0) return true;
    const auto read = [&] {
        const bool isAtEnd = traits_type::eq_int_type(source_.sgetc(), traits_type::eof());
        return isAtEnd ? 0 : source_.in_avail();
    };
    return (isTimed() ? timed(read) : read()) > 0;
}

/// Past the area, which is empty. 0 at the end.
std::streamsize LimitedInput::Buffer::readDirectly(char* data, std::streamsize size) {
    const int length = static_cast<int>(std::min<std::streamsize>(size, std::numeric_limits<int>::max()));
    const std::streamsize count = timed([&] { return pipe_.readPipe(data, 0, length, pipe_.getReadTimeout()); });
    return std::max<std::streamsize>(count, 0);
}

LimitedInput::Buffer::int_type LimitedInput::Buffer::underflow() {
    return fillArea() ? source_.sgetc() : traits_type::eof();
}

LimitedInput::Buffer::int_type LimitedInput::Buffer::uflow() {
    if (!fillArea()) return traits_type::eof();
    const int_type next = source_.sbumpc();
    if (inHead_) countHead(traits_type::to_char_type(next));
    return next;
}

std::streamsize LimitedInput::Buffer::xsgetn(char* data, std::streamsize size) {
    if (inHead_) return std::streambuf::xsgetn(data, size);
    if (!isTimed()) return source_.sgetn(data, size);
    std::streamsize got = 0;
    while (got < size) {
        const std::streamsize wanted = size - got;
        const std::streamsize there = source_.in_avail();
        std::streamsize count = 0;
        if (there > 0) {
            count = source_.sgetn(data + got, std::min(there, wanted));
        } else if (isPipe_ && wanted >= DIRECT_READ) {
            count = readDirectly(data + got, wanted);
        } else if (fillArea()) {
            continue;
        }
        if (count <= 0) break;
        got += count;
    }
    return got;
}

}  // namespace Quovane::Internal::Qvtp
