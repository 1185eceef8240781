#pragma once

#include <qvtp/client/QvtpConnectionManager.h>
#include <qvtp/easy/Connections.h>
#include <qvtp/io/ConnectException.h>
#include <qvtp/io/IllegalArgumentException.h>
#include <qvtp/io/IllegalStateException.h>
#include <qvtp/io/TimeoutException.h>

namespace qvtp::detail {

/// What one call asks the library for, and what becomes of its connection. It knows why a connection could not be made,
/// and turns the library's exceptions into errors.
class Call final : public exact::QvtpConnectionManager {
  public:
    /// `what`: the call in words. The connections must outlive it.
    Call(Connections& connections, const std::string& pipeName, const std::string& what, int connectTimeoutMs)
        : connections_(connections), pipeName_(pipeName), what_(what), connectTimeoutMs_(connectTimeoutMs) {}

    io::QvPipe* getPipe(const std::string&, const std::string& mode) override {
        connection_ = connections_.take(mode);
        if (connection_ == nullptr) throwClosed();
        try {
            if (!connection_->isOpen) connect();
        } catch (...) {
            connections_.giveBack(*connection_, false);
            throw;
        }
        return &connection_->pipe;
    }
    void returnPipe(io::QvPipe*) override { connections_.giveBack(*connection_, true); }
    /// After a failure, and when the reply was not read to its end or is none.
    void removePipe(io::QvPipe* pipe) override {
        hasBroken_ = true;
        hasEnded_ = connection_->isReadable() && !pipe->getInputStream()->good();
        connections_.giveBack(*connection_, false);
    }
    /// The library has found the connection no good for another exchange; it has because nothing more came.
    bool hasBroken() const { return hasBroken_; }
    bool hasEnded() const { return hasEnded_; }

    /// Throws what the exception comes to that is being handled. `isCommitted`: a byte of the request has left.
    [[noreturn]] void translate(bool isCommitted) const {
        try {
            throw;
        } catch (const io::IllegalArgumentException&) {
            fail(ErrorKind::misuse, "The body has more than 2147483647 bytes.", "Stream it.");
        } catch (const io::IllegalStateException&) {  // with one body, whole or streamed, there is no other
            throwUnknown("The connection broke while the request was sent.");
        } catch (io::TimeoutException& e) {
            if (!isCommitted) throwNotSent(e.getMessage());
            fail(ErrorKind::timed_out, "There was no answer in time.",
                 "The server may have acted. Its handler is slow or stuck, or the time-out is too short.");
        } catch (io::QvPipeException& e) {
            constexpr int NO_LENGTH = 1011;
            if (connections_.isClosed()) throwClosed();
            if (!isCommitted) throwNotSent(e.getMessage());
            if (e.getCode() == NO_LENGTH) throwMalformed("it gives no length of its body");
            throwUnknown(e.getMessage());
        }
    }
    /// The same after the head of the reply; `isThrown`: an exception is being handled.
    [[noreturn]] void translateBody(bool isThrown) const {
        try {
            if (isThrown) throw;
        } catch (io::TimeoutException&) {
            translate(true);
        } catch (const std::ios_base::failure&) {
            if (connections_.isClosed()) throwClosed();
        }
        fail(ErrorKind::cut_off, "The reply was cut off within its body.",
             "The server has acted, and has failed or stopped then: look at its log.");
    }
    [[noreturn]] void throwMalformed(const std::string& reason) const {
        fail(ErrorKind::malformed_reply, "The reply is none of this protocol: " + reason + ".",
             "The server may have acted. It is faulty, or of another kind.");
    }

  private:
    void connect() const try {
        if (pipeName_.empty()) throw io::ConnectException("");
        connection_->connect(pipeName_, connectTimeoutMs_);
        if (connections_.isClosed()) throwClosed();
    } catch (io::ConnectException& e) {
        throwNoConnection(e.getMessage() == "Access denied.");
    } catch (io::TimeoutException&) {
        fail(ErrorKind::busy, "The server took no connection in time.",
             "All its workers are busy: give it more, or the client a longer connect time-out.");
    } catch (io::QvPipeException& e) {
        throwNotSent(e.getMessage());
    }
    [[noreturn]] void throwNoConnection(bool isDenied) const {
        using State = io::PipeFacts::State;
        const State state = io::findPipeFacts(pipeName_).state;
        if (state == State::BAD_NAME) fail(ErrorKind::misuse, "No pipe can have this name.", "Use another.");
        if (state == State::BAD_DIRECTORY) fail(ErrorKind::bad_directory, "The pipe directory is refused.", "");
        if (isDenied)
            fail(ErrorKind::denied, "Access is denied.", "The server takes only NOTIFY, or is of another user.");
        // A server that was there a moment ago, or has just come, or is out of this process's reach for now.
        if (state == State::UNKNOWN || state == State::SERVED) throwNotSent("The system refused the connection.");
        if (hasBroken_) throwNotSent("The connection has broken, and there is no server any more.");
        fail(ErrorKind::no_server, "There is no server.",
             "Start it, as the same user and with the same QVTP_PIPE_DIR.");
    }
    [[noreturn]] void throwNotSent(const std::string& reason) const {
        if (connections_.isClosed()) throwClosed();
        fail(ErrorKind::not_sent, "Nothing was sent. " + reason, "Try again: server or system may recover.");
    }
    [[noreturn]] void throwUnknown(const std::string& reason) const {
        if (connections_.isClosed()) throwClosed();
        fail(ErrorKind::unknown_outcome, "There is no reply. " + reason,
             "The server may have acted, and has failed or stopped then: look at its log.");
    }
    [[noreturn]] void throwClosed() const { fail(ErrorKind::closed, "The client was closed.", "Make a new one."); }
    [[noreturn]] void fail(ErrorKind kind, const std::string& text, const std::string& advice) const {
        throw errorOf(kind, pipeName_, what_ + " failed. " + text, advice);
    }

    Connections& connections_;
    const std::string pipeName_, what_;
    const int connectTimeoutMs_;
    Connection* connection_ = nullptr;  // not owned
    bool hasBroken_ = false, hasEnded_ = false;
};
}  // namespace qvtp::detail
