#pragma once

#include <qvtp/io/QvPipe.h>
#include <qvtp/server/QvtpServer.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <streambuf>
#include <string>

namespace Quovane::Internal::Qvtp {

class InputBuffer;

/// What a worker reads one request from, if its server has limits. It takes every byte from the worker's own input, and
/// none before it is asked for it, so that the next request begins where this one ends. A read that exceeds a limit
/// throws QvPipeException.
class LimitedInput : public std::istream {
  public:
    using QvPipe = Quovane::Io::QvPipe;
    using Limits = Quovane::Qvtp::QvtpServer::Limits;

    /// The request begins now. Neither is owned: `source` is the pipe's stream, or what was left of it.
    LimitedInput(std::istream& source, QvPipe& pipe, const Limits& limits);

    static bool isAny(const Limits& limits);

    /// The head was read, and this is what reads the body. False if the body is announced as too long.
    bool endHead(InputBuffer& body);
    /// What is said when a limit is exceeded, and the status that fits. Empty, and 0, before that.
    const std::string& reason() const { return buffer_.reason; }
    int status() const { return buffer_.status; }
    /// The body turned out to be too long.
    void refuseBody();
    /// Whether what came of the head begins a POST.
    bool isPost() const { return buffer_.isPost(); }

  private:
    class Buffer : public std::streambuf {
      public:
        Buffer(std::streambuf& source, QvPipe& pipe, const Limits& limits);

        void endHead() {
            inHead_ = false;
            late_ = false;
        }
        bool isPost() const;
        void exceed(int code, const std::string& what);

        std::string reason;
        int status = 0;

      protected:
        std::streamsize showmanyc() override { return source_.in_avail(); }
        int_type underflow() override;
        int_type uflow() override;
        std::streamsize xsgetn(char* data, std::streamsize size) override;

      private:
        using Clock = std::chrono::steady_clock;

        [[noreturn]] void fail(int code, const std::string& what);
        void countHead(char c);
        void countHeadByte();
        void beginLine(char c);
        bool isTimed() const { return limits_.requestMs > 0 || (inHead_ && limits_.headMs > 0); }
        Clock::time_point end() const;
        [[noreturn]] void failLate();
        int limitedTimeout();
        void noteLate();
        template <typename Read>
        std::streamsize timed(const Read& read);
        bool fillArea();
        std::streamsize readDirectly(char* data, std::streamsize size);

        std::streambuf& source_;
        QvPipe& pipe_;
        const bool isPipe_;  // nothing stands between the source and its pipe
        const Limits limits_;
        const Clock::time_point begin_ = Clock::now();
        bool inHead_ = true;
        int headBytes_ = 0;
        int headers_ = 0;
        bool inStartLine_ = true;  // or before it
        bool lineIsEmpty_ = true;  // what has come of it
        bool heldReturn_ = false;  // it has begun with a carriage return, which may belong to its end
        std::string method_;       // the beginning of the start line
        bool late_ = false;        // the time is over
        std::size_t arrived_ = 0;  // what had come by then and was not read yet
    };

    Buffer buffer_;
    const Limits limits_;
};

}  // namespace Quovane::Internal::Qvtp
