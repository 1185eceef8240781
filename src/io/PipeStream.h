#pragma once

#include <qvtp/io/PipeBufferBase.h>
#include <qvtp/io/QvPipe.h>

#include "common/MessageSink.h"
#include "io/WriteCheck.h"
#include "platform/PipePlatform.h"

#include <algorithm>
#include <atomic>
#include <istream>
#include <limits>
#include <mutex>
#include <optional>
#include <ostream>

/// The streams of a pipe.
namespace Quovane::Io {

/// A stream and its buffer. The buffer works on the QvPipe that made it. When that object goes while copies still have
/// the stream, an heir takes its place: a closed pipe, on which every read and write fails in the ordinary way. Copies
/// may go on several threads at once.
template <typename Stream>
class QvPipe::PipeStream : public Stream {
  public:
    PipeStream(QvPipe* pipe, int mode) : Stream(nullptr), buffer_(pipe, mode) {
        this->rdbuf(&buffer_);
        this->exceptions(std::ios_base::badbit);
    }

    /// Puts the heir in the pipe's place, if the stream works on this pipe. It needs no memory: this is for
    /// destructors.
    void leave(const QvPipe& owner) {
        std::lock_guard<std::mutex> guard(mutex_);
        if (buffer_.pipe_ != &owner) return;
        heir_.emplace();
        heir_->readTimeout_ = owner.readTimeout_;
        buffer_.pipe_ = &*heir_;
        buffer_.dropArea();  // whoever gave it to the owner frees it now
        isOrphan_ = true;
    }

    /// Gives a stream without an owner to a copy that asks for it.
    void adopt(QvPipe* pipe) {
        if (!isOrphan_) return;
        std::lock_guard<std::mutex> guard(mutex_);
        if (!heir_) return;
        buffer_.pipe_ = pipe;
        heir_.reset();
        isOrphan_ = false;
    }

  protected:
    PipeBufferBase<char> buffer_;

  private:
    std::mutex mutex_;  // guards whose the stream is: heir_ and the buffer's pipe
    std::optional<QvPipe> heir_;
    std::atomic<bool> isOrphan_{false};  // whether there is an heir, for those who have no lock
};

/// The stream that reads.
class QvPipe::InputStream : public PipeStream<std::istream> {
  public:
    using PipeStream::PipeStream;

    /// Whether what a wait for input takes can go into the stream's area: it is there, empty, and nobody has put a
    /// buffer of their own before it.
    bool hasRoom() const { return rdbuf() == &buffer_ && buffer_.bufferSize_ > 1 && buffer_.gptr() == buffer_.egptr(); }
    /// As PipeControl has it.
    bool hadRoomForMore() const {
        const auto count = buffer_.egptr() - buffer_.eback();
        return rdbuf() == &buffer_ && count > 0 && count < buffer_.bufferSize_;
    }
    char* area() { return buffer_.buffer_; }
    int areaSize() const { return static_cast<int>(std::min<std::streamsize>(buffer_.bufferSize_, MAX_AREA)); }
    /// So many bytes are in the area now.
    void filled(int count) { buffer_.setg(buffer_.buffer_, buffer_.buffer_, buffer_.buffer_ + count); }

  private:
    static constexpr std::streamsize MAX_AREA = std::numeric_limits<int>::max();
};

/// The stream that writes. Whole messages take the short way past its area.
class QvPipe::OutputStream : public PipeStream<std::ostream>, public Internal::Qvtp::MessageSink {
  public:
    using PipeStream::PipeStream;

    std::size_t writeSome(const char* head, std::size_t headLength, const char* body, std::size_t bodyLength) override {
        std::size_t written = 0;
        writing([&](const QvPipe& pipe) {
            Internal::Qvtp::checkWritten(Internal::Qvtp::platformWriteSome(pipe.pipeHandle_, pipe.eventHandle_, head,
                                                                           headLength, body, bodyLength, written));
        });
        return written;
    }

    void writeAll(const char* data, std::size_t length) override {
        writing([&](QvPipe& pipe) {
            for (std::size_t done = 0; done < length;) {
                const std::size_t size = std::min(length - done, Internal::Qvtp::platformBlockSize());
                pipe.writePipe(data + done, 0, static_cast<int>(size));
                done += size;
            }
        });
    }

    /// Whether nothing stands between the stream and its pipe, and it has not failed. Without an area the stream's
    /// first write fails, and that is so here too.
    bool isDirect() const { return rdbuf() == &buffer_ && buffer_.buffer_ != nullptr && good(); }

  private:
    /// What the area holds goes first. A failure leaves the stream bad, as if its buffer had thrown.
    template <typename Action>
    void writing(const Action& action) {
        try {
            buffer_.sync();
            action(*buffer_.pipe_);
        } catch (...) {
            try {
                setstate(std::ios_base::badbit);
            } catch (const std::ios_base::failure&) {
                // The stream's own exception: the pipe's says more.
            }
            throw;
        }
    }
};

}  // namespace Quovane::Io
