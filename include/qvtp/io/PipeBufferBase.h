#pragma once

#include <qvtp/Export.h>

#include <streambuf>
#include <string>

namespace Quovane::Io {

class QvPipe;

/// A stream buffer over one direction of a QvPipe; the pipe's own streams are built on it. Using it in the other
/// direction throws QvPipeException; the pipe's exceptions pass through. Used by one thread at a time.
template <typename CharT, typename Traits = std::char_traits<CharT>>
class PipeBufferBase : public std::basic_streambuf<CharT, Traits> {
  public:
    using typename std::basic_streambuf<CharT, Traits>::int_type;

    static constexpr int INPUT_MODE = 1;
    static constexpr int OUTPUT_MODE = 2;

    /// The pipe is not owned and must outlive the buffer. `mode`: INPUT_MODE or OUTPUT_MODE; any other throws
    /// QvPipeException.
    PipeBufferBase(QvPipe* pipe, int mode);
    /// The copy uses the same pipe and the same buffer area.
    PipeBufferBase(const PipeBufferBase& other);
    PipeBufferBase& operator=(const PipeBufferBase& other);
    ~PipeBufferBase() override;

  protected:
    /// Installs a buffer area of `size` characters, which stays the caller's and must outlive the buffer's use. Allowed
    /// once, before the first read: a second call throws QvPipeException.
    std::basic_streambuf<CharT, Traits>* setbuf(CharT* area, std::streamsize size) override;
    /// Writes what is pending; 0 always.
    int sync() override;
    /// One read of at most the buffer's size, with the pipe's read time-out. Without a buffer it reads single
    /// characters.
    int_type underflow() override;
    std::streamsize xsgetn(CharT* s, std::streamsize n) override;
    /// Without a buffer the block goes to the pipe at once and the result is 0, not n.
    std::streamsize xsputn(const CharT* s, std::streamsize n) override;
    int_type overflow(int_type c = Traits::eof()) override;

  private:
    friend class QvPipe;

    void requireInput() const;
    void requireOutput() const;
    bool flushArea();
    void dropArea();

    bool isInput_ = false;
    bool isOutput_ = false;
    QvPipe* pipe_;             // not owned
    CharT* buffer_ = nullptr;  // not owned; may be oneChar_
    std::streamsize bufferSize_ = 0;
    CharT oneChar_ = CharT();
};

extern template class QVTP_API PipeBufferBase<char>;

}  // namespace Quovane::Io
