#pragma once

#include "common/OWriter.h"

#include <streambuf>

namespace Quovane::Soa::Internal::Common {

/// A stream buffer without an area of its own: everything written to it goes straight to a writer.
template <typename CharT>
class OStreamBuffer : public std::basic_streambuf<CharT> {
  public:
    using Traits = std::char_traits<CharT>;
    using typename std::basic_streambuf<CharT>::int_type;

    /// The writer is not owned. With `flushThrough` a flush of the stream flushes the writer; otherwise what the writer
    /// holds back waits for more.
    explicit OStreamBuffer(OWriter* writer, bool flushThrough = false) : writer_(writer), flushThrough_(flushThrough) {}

    OWriter* getWriter() const { return writer_; }

    /// Ends the message. A writer that was never written to is called once with nothing, so that it has begun
    /// its message before it ends it.
    void send() {
        if (!written_) write(nullptr, 0);
        writer_->send();
    }

  protected:
    int_type overflow(int_type c) override {
        if (Traits::eq_int_type(c, Traits::eof())) return Traits::not_eof(c);
        const CharT character = Traits::to_char_type(c);
        write(&character, 1);
        return c;
    }

    std::streamsize xsputn(const CharT* data, std::streamsize length) override {
        if (length > 0) write(data, length);
        return length;
    }

    int sync() override {
        if (flushThrough_ && written_) writer_->flush();
        return 0;
    }

  private:
    void write(const CharT* data, std::streamsize length) {
        written_ = true;
        writer_->write(data, length);
    }

    OWriter* writer_;  // not owned
    bool flushThrough_;
    bool written_ = false;
};

}  // namespace Quovane::Soa::Internal::Common
