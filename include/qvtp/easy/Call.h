#pragma once
#include <qvtp/easy/Body.h>
#include <qvtp/easy/Connections.h>
#include <utility>

namespace qvtp::detail {
/// A streamed body as the library reads it, in blocks alone. Neither argument is owned.
struct BodyWriter : std::streambuf {
    BodyWriter(const Body& body, const std::function<void(const Progress&)>& onSent) : body_(body), onSent_(onSent) {}
    std::streamsize xsgetn(char* buffer, std::streamsize size) override {
        std::streamsize filled = 0;
        for (std::size_t count = 1; count > 0 && filled < size; filled += static_cast<std::streamsize>(count)) {
            count = body_.source()(buffer + filled, static_cast<std::size_t>(size - filled));
        }
        sent_ += static_cast<std::uint64_t>(filled);
        if (filled > 0 && onSent_) onSent_({sent_, body_.total()});
        return filled;
    }
    const Body& body_;
    const std::function<void(const Progress&)>& onSent_;
    std::uint64_t sent_ = 0;
};
/// Stands before the input buffer of a connection during one call, and sees the first read: the request has left then.
struct SentWatch : std::streambuf {
    std::streamsize showmanyc() override { return source->in_avail(); }
    int_type underflow() override { return read()->sgetc(); }
    int_type uflow() override { return read()->sbumpc(); }
    std::streamsize xsgetn(char* buffer, std::streamsize size) override { return read()->sgetn(buffer, size); }
    std::streambuf* read() {
        if (onSent) std::exchange(onSent, nullptr)();
        return source;
    }
    std::function<void()> onSent;
    std::streambuf* source = nullptr;  // not owned
};
/// What becomes of one call: its connection, or why there is none, and the library's exceptions as errors.
class Call final : public exact::QvtpConnectionManager {
  public:
    /// `what`: the call in words. The connections must outlive it.
    Call(Connections& connections, const std::string& pipeName, const std::string& what, int connectTimeoutMs)
        : connections_(connections), pipeName_(pipeName), what_(what), connectTimeoutMs_(connectTimeoutMs) {}
    ~Call() override {
        if (connection_ != nullptr) giveBack(false);
    }
    io::QvPipe* getPipe(const std::string&, const std::string& mode) override {
        connection_ = &connections_.take(mode == "rw");
        if (!connection_->isOpen) connect();
        if (connections_.isClosed) fail(ErrorKind::closed);
        if (onConnected) onConnected();
        watch_.onSent = onEnd;
        if (onEnd && connection_->isReadable) watch_.source = input().rdbuf(&watch_);
        return &connection_->pipe;
    }
    void returnPipe(io::QvPipe*) override {
        hasBroken = hasEnded = false;  // of an earlier connection
        giveBack(isReusable);
    }
    /// After a failure, and if the reply was not read to its end or is none.
    void removePipe(io::QvPipe*) override {
        hasBroken = true;
        hasEnded = connection_->isReadable && !input().good();
        giveBack(false);
    }
    std::function<void()> onConnected;  ///< as in CallOptions
    std::function<void()> onEnd;        ///< of sending: before the first read of the reply
    bool hasHead = false;               ///< of the reply
    bool isReusable = true;             ///< false: the server is about to close the connection
    bool hasBroken = false;             ///< the library has found the connection no good for another exchange
    bool hasEnded = false;              ///< the same, because nothing more came
    /// Throws what the exception comes to that is being handled. `isCommitted`: a byte of the request has left.
    [[noreturn]] void translate(bool isCommitted) const {
        const ErrorKind lateKind = hasHead ? ErrorKind::cut_off : ErrorKind::unknown_outcome;
        try {
            throw;
        } catch (const io::IllegalArgumentException&) {
            fail(ErrorKind::misuse, "The body has more than 2147483647 bytes: stream it.");
        } catch (const io::IllegalStateException&) {  // with one body, whole or streamed, there is no other
            fail(ErrorKind::unknown_outcome, "The connection broke while the request was sent.");
        } catch (io::TimeoutException& e) {
            fail(isCommitted ? ErrorKind::timed_out : ErrorKind::not_sent, e.getMessage());
        } catch (io::QvPipeException& e) {
            if (e.getCode() == 1011) fail(ErrorKind::malformed_reply, "It gives no length of its body.");
            fail(isCommitted ? lateKind : ErrorKind::not_sent, e.getMessage());
        }
    }
    [[noreturn]] void fail(ErrorKind kind, const std::string& reason = {}) const {
        if (connections_.isClosed) kind = ErrorKind::closed;
        throw errorOf(kind, pipeName_, what_ + " failed." + (reason.empty() ? "" : " " + reason));
    }

  private:
    std::istream& input() const { return *connection_->pipe.getInputStream(); }
    void giveBack(bool isGood) {
        if (watch_.source != nullptr) input().rdbuf(std::exchange(watch_.source, nullptr));
        connections_.giveBack(*std::exchange(connection_, nullptr), isGood);
    }
    void connect() const try {
        if (pipeName_.empty()) throw io::ConnectException("");
        connection_->connect(pipeName_, connectTimeoutMs_);
    } catch (io::ConnectException& e) {
        using State = io::PipeFacts::State;
        const State state = io::findPipeFacts(pipeName_).state;
        if (state == State::BAD_NAME) fail(ErrorKind::misuse);
        if (state == State::BAD_DIRECTORY) fail(ErrorKind::bad_directory);
        if (e.getMessage() == "Access denied.") fail(ErrorKind::denied);
        // A server that was there a moment ago, or has just come, or is out of this process's reach for now.
        if (hasBroken || state == State::UNKNOWN || state == State::SERVED) fail(ErrorKind::not_sent, e.getMessage());
        fail(ErrorKind::no_server);
    } catch (io::TimeoutException& e) {
        fail(ErrorKind::busy, e.getMessage());
    } catch (io::QvPipeException& e) {
        fail(ErrorKind::not_sent, e.getMessage());
    }
    Connections& connections_;
    const std::string pipeName_, what_;
    const int connectTimeoutMs_;
    Connection* connection_ = nullptr;  // not owned
    SentWatch watch_;
};
}  // namespace qvtp::detail
