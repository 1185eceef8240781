#include <qvtp/io/PipeBufferBase.h>

#include <qvtp/io/QvPipe.h>
#include <qvtp/io/QvPipeException.h>

#include "io/PipeControl.h"

#include <algorithm>
#include <limits>

namespace Quovane::Io {

namespace {

int clampToInt(std::streamsize size) {
    return static_cast<int>(std::min<std::streamsize>(size, std::numeric_limits<int>::max()));
}

}  // namespace

template <typename CharT, typename Traits>
PipeBufferBase<CharT, Traits>::PipeBufferBase(QvPipe* pipe, int mode)
    : isInput_(mode == INPUT_MODE), isOutput_(mode == OUTPUT_MODE), pipe_(pipe) {
    if (!isInput_ && !isOutput_) throw QvPipeException("Mode must be either ios_base::in or ios_base::out");
    PipeBufferBase::setbuf(nullptr, 0);
}

template <typename CharT, typename Traits>
PipeBufferBase<CharT, Traits>::PipeBufferBase(const PipeBufferBase& other) = default;

template <typename CharT, typename Traits>
PipeBufferBase<CharT, Traits>& PipeBufferBase<CharT, Traits>::operator=(const PipeBufferBase& other) = default;

template <typename CharT, typename Traits>
PipeBufferBase<CharT, Traits>::~PipeBufferBase() = default;

template <typename CharT, typename Traits>
std::basic_streambuf<CharT, Traits>* PipeBufferBase<CharT, Traits>::setbuf(CharT* area, std::streamsize size) {
    if (buffer_ != nullptr) throw QvPipeException("Buffer already set.  Reset not supported.");
    buffer_ = area;
    bufferSize_ = size;
    if (isOutput_) this->setp(area, area + size);
    if (isInput_) this->setg(area, area, area);
    return this;
}

template <typename CharT, typename Traits>
void PipeBufferBase<CharT, Traits>::requireInput() const {
    if (isOutput_) throw QvPipeException("Illegal operation: reading from output stream.");
}

template <typename CharT, typename Traits>
void PipeBufferBase<CharT, Traits>::requireOutput() const {
    if (isInput_) throw QvPipeException("Illegal operation: writing to input stream.");
}

/// Writes the put area to the pipe; false when there is nothing in it.
template <typename CharT, typename Traits>
bool PipeBufferBase<CharT, Traits>::flushArea() {
    const std::streamsize pending = this->pptr() - this->pbase();
    if (pending <= 0) return false;
    pipe_->writePipe(buffer_, 0, clampToInt(pending));
    this->setp(buffer_, buffer_ + bufferSize_);
    return true;
}

/// Forgets the area and what is in it: its owner may free it.
template <typename CharT, typename Traits>
void PipeBufferBase<CharT, Traits>::dropArea() {
    buffer_ = nullptr;
    bufferSize_ = 0;
    this->setp(nullptr, nullptr);
    this->setg(nullptr, nullptr, nullptr);
}

template <typename CharT, typename Traits>
typename PipeBufferBase<CharT, Traits>::int_type PipeBufferBase<CharT, Traits>::overflow(int_type c) {
    requireOutput();
    const CharT character = Traits::to_char_type(c);
    if (buffer_ == nullptr) {
        pipe_->writePipe(&character, 0, 1);
        return c;
    }
    flushArea();
    if (Traits::eq_int_type(c, Traits::eof())) return Traits::eof();
    if (this->pptr() == this->epptr()) return Traits::eof();
    *this->pptr() = character;
    this->pbump(1);
    return c;
}

template <typename CharT, typename Traits>
int PipeBufferBase<CharT, Traits>::sync() {
    if (isOutput_ && buffer_ != nullptr) flushArea();
    return 0;
}

template <typename CharT, typename Traits>
typename PipeBufferBase<CharT, Traits>::int_type PipeBufferBase<CharT, Traits>::underflow() {
    requireInput();
    if (buffer_ == nullptr) {
        buffer_ = &oneChar_;
        bufferSize_ = 1;
    }
    const int count = pipe_->readPipe(buffer_, 0, clampToInt(bufferSize_), pipe_->getReadTimeout());
    if (count == -1) {
        this->setg(buffer_, buffer_, buffer_);
        return Traits::eof();
    }
    this->setg(buffer_, buffer_, buffer_ + count);
    return Traits::to_int_type(*buffer_);
}

template <typename CharT, typename Traits>
std::streamsize PipeBufferBase<CharT, Traits>::xsgetn(CharT* s, std::streamsize n) {
    requireInput();
    using Base = std::basic_streambuf<CharT, Traits>;
    const std::streamsize there = std::min<std::streamsize>(n, this->egptr() - this->gptr());
    std::streamsize got = there > 0 ? Base::xsgetn(s, there) : 0;
    while (bufferSize_ > 1 && n - got >= bufferSize_) {
        this->setg(buffer_, buffer_, buffer_);  // what is in it no longer shows how much the last read brought
        const int count = pipe_->readPipe(s + got, 0, clampToInt(n - got), pipe_->getReadTimeout());
        if (count == -1) return got;
        got += count;
    }
    return got < n ? got + Base::xsgetn(s + got, n - got) : got;
}

template <typename CharT, typename Traits>
std::streamsize PipeBufferBase<CharT, Traits>::xsputn(const CharT* s, std::streamsize n) {
    requireOutput();
    if (s == nullptr || n <= 0) return 0;
    std::streamsize placed = 0;
    if (buffer_ == nullptr) {
        for (; placed < n; placed += clampToInt(n - placed)) pipe_->writePipe(s + placed, 0, clampToInt(n - placed));
        return 0;
    }
    if (bufferSize_ == 0) return 0;
    if (n > this->epptr() - this->pptr()) {
        // What is pending leaves with so much of the block that the rest of it just fits into the area.
        const std::streamsize pending = this->pptr() - this->pbase();
        placed = n - ((pending + n - 1) % bufferSize_ + 1);
        Internal::Qvtp::PipeControl::write(*pipe_, buffer_, static_cast<std::size_t>(pending), s,
                                           static_cast<std::size_t>(placed));
        this->setp(buffer_, buffer_ + bufferSize_);
    }
    Traits::copy(this->pptr(), s + placed, static_cast<std::size_t>(n - placed));
    this->pbump(static_cast<int>(n - placed));
    return n;
}

template class PipeBufferBase<char>;

}  // namespace Quovane::Io
