#include "common/OBufferWriter.h"

#include "common/WireSyntax.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace Quovane::Soa::Internal::Common {

namespace {

using Quovane::Internal::Qvtp::WireSyntax::LAST_CHUNK;
using Quovane::Internal::Qvtp::WireSyntax::LINE_END;

void writeText(std::ostream& out, std::string_view text) {
    out.write(text.data(), static_cast<std::streamsize>(text.size()));
}

void writeChunkSize(std::ostream& out, std::size_t size) {
    char line[2 * sizeof size + LINE_END.size()];
    char* end = std::to_chars(line, line + 2 * sizeof size, size, 16).ptr;
    end = std::copy(LINE_END.begin(), LINE_END.end(), end);
    out.write(line, end - line);
}

}  // namespace

OBufferWriter::OBufferWriter(std::ostream* out, int bufferSize, bool chunked)
    : out_(out), chunked_(chunked), capacity_(static_cast<std::size_t>(std::max(bufferSize, 1))) {
    buffer_.reserve(capacity_);
}

OBufferWriter::~OBufferWriter() = default;

int OBufferWriter::write(const char* data, long long length) {
    auto left = static_cast<std::size_t>(std::max(length, 0LL));
    const auto taken = static_cast<int>(left);
    while (left > 0) {
        std::size_t piece = std::min(left, capacity_ - buffer_.size());
        if (piece == capacity_) {
            writeOut(data, piece);
        } else {
            buffer_.insert(buffer_.end(), data, data + piece);
            if (buffer_.size() == capacity_) writeBuffered();
        }
        data += piece;
        left -= piece;
    }
    return taken;
}

void OBufferWriter::flush() {
    writeBuffered();
    out_->flush();
}

void OBufferWriter::send() {
    writeBuffered();
    if (chunked_) writeText(*out_, LAST_CHUNK);
    out_->flush();
}

void OBufferWriter::writeBuffered() {
    if (buffer_.empty()) return;
    writeOut(buffer_.data(), buffer_.size());
    buffer_.clear();
}

void OBufferWriter::writeOut(const char* data, std::size_t length) {
    if (chunked_) writeChunkSize(*out_, length);
    out_->write(data, static_cast<std::streamsize>(length));
    if (chunked_) writeText(*out_, LINE_END);
}

}  // namespace Quovane::Soa::Internal::Common
