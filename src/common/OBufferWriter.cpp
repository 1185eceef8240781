#include "common/OBufferWriter.h"

#include <algorithm>
#include <charconv>

namespace Quovane::Soa::Internal::Common {

namespace {

constexpr char LINE_END[] = "\r\n";
constexpr std::streamsize LINE_END_LENGTH = 2;

void writeChunkSize(std::ostream& out, std::size_t size) {
    char line[2 * sizeof size + LINE_END_LENGTH];
    char* end = std::to_chars(line, line + 2 * sizeof size, size, 16).ptr;
    end = std::copy_n(LINE_END, LINE_END_LENGTH, end);
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
    if (chunked_) out_->write("0\r\n\r\n", 5);
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
    if (chunked_) out_->write(LINE_END, LINE_END_LENGTH);
}

}  // namespace Quovane::Soa::Internal::Common
