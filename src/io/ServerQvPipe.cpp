#include <qvtp/io/ServerQvPipe.h>

#include <qvtp/io/BindException.h>
#include <qvtp/io/IllegalStateException.h>
#include <qvtp/io/InterruptedException.h>
#include <qvtp/io/TimeoutException.h>

#include "common/System.h"
#include "io/BindCheck.h"
#include "logging/Log.h"
#include "platform/ServerPipePlatform.h"

namespace Quovane::Io {

namespace {

using namespace Quovane::Internal::Qvtp;

constexpr int RETRY_BACKOFF_MS = 100;
constexpr int RETRY_STEP_MS = 5;

/// Not a lambda of a member function: what is made with it would be exported.
struct Accepting {
    ServerQvPipe& server;
    void operator()(QvPipe& pipe) const { server.accept(pipe); }
};

}  // namespace

ServerQvPipe::ServerQvPipe() : prefix_(QvPipe::PIPE_NAME_PREFIX) {}

ServerQvPipe::ServerQvPipe(const std::string& name, bool readable, bool writable) : prefix_(QvPipe::PIPE_NAME_PREFIX) {
    try {
        bind(name, readable, writable);
    } catch (...) {
        // An instance whose event could not be made is there already, and no destructor will run.
        if (pipeHandle_ != INVALID_NATIVE_HANDLE) closeHandles();
        throw;
    }
}

ServerQvPipe::ServerQvPipe(const ServerQvPipe& other)
    : name_(other.name_),
      readable_(other.readable_),
      writable_(other.writable_),
      instanceCounter_(other.instanceCounter_),
      acceptTimeout_(other.acceptTimeout_),
      prefix_(other.prefix_),
      lastInstance_(other.lastInstance_),
      closed_(other.closed_.load()),
      pipeHandle_(other.pipeHandle_.load()),
      eventHandle_(other.eventHandle_.load()) {}

ServerQvPipe& ServerQvPipe::operator=(const ServerQvPipe& other) {
    if (this == &other) return *this;
    name_ = other.name_;
    readable_ = other.readable_;
    writable_ = other.writable_;
    instanceCounter_ = other.instanceCounter_;
    acceptTimeout_ = other.acceptTimeout_;
    prefix_ = other.prefix_;
    lastInstance_ = other.lastInstance_;
    closed_ = other.closed_.load();
    pipeHandle_ = other.pipeHandle_.load();
    eventHandle_ = other.eventHandle_.load();
    return *this;
}

ServerQvPipe::~ServerQvPipe() {
    logDebug([&] { return "Closing server pipe: " + name_; });
    close();
    if (pipeHandle_ != INVALID_NATIVE_HANDLE) closeHandles();  // bound after it was closed
}

void ServerQvPipe::bind(const std::string& name, bool readable, bool writable) {
    checkBind(readable, writable, isBound());
    name_ = name;
    readable_ = readable;
    writable_ = writable;
    bindPipe(prefix_ + name_, true);
}

bool ServerQvPipe::isBound() const {
    return !name_.empty();
}

void ServerQvPipe::bindPipe(const std::string& path, bool first) {
    NativeHandle pipeHandle = INVALID_NATIVE_HANDLE;
    NativeHandle eventHandle = INVALID_NATIVE_HANDLE;
    const int error =
        first ? platformCreateInstance(path, readable_, writable_, first, pipeHandle, eventHandle)
              : platformCreateNextInstance(lastInstance_, path, readable_, writable_, pipeHandle, eventHandle);
    eventHandle_ = eventHandle;
    pipeHandle_ = pipeHandle;
    if (error != 0) throw BindException("CreateNamedPipe failed");
    lastInstance_ = pipeHandle;
}

QvPipe ServerQvPipe::accept() {
    return QvPipe(QvPipe::InPlace(), Accepting{*this});
}

void ServerQvPipe::accept(QvPipe& pipe) {
    if (!isBound()) throw IllegalStateException("Pipe is not bound.");
    if (closed_) throw IllegalStateException("Pipe is closed.");
    if (pipe.isBound()) throw IllegalStateException("Cannot provide a bound QvPipe to accept().");
    const int counter = instanceCounter_;
    instanceCounter_ = static_cast<int>(static_cast<unsigned>(counter) + 1);  // goes on from the lowest number
    try {
        acceptPipe(prefix_ + name_, "/" + name_, counter, readable_, writable_, acceptTimeout_, pipe);
    } catch (TimeoutException& e) {
        throw TimeoutException(e.getMessage(), e.getCode());
    } catch (QvPipeException& e) {
        if (closed_) throw InterruptedException("accept aborted");
        // The subclass is not kept: callers match this class and text.
        throw QvPipeException(e.getMessage(), e.getCode());
    }
}

void ServerQvPipe::acceptPipe(const std::string& path, const std::string& /*displayName*/, int /*counter*/,
                              bool readable, bool writable, int timeoutMs, QvPipe& pipe) {
    handingOver_ = false;
    ensureInstance(path);
    switch (platformAccept(pipeHandle_, eventHandle_, timeoutMs)) {
        case AcceptResult::CONNECTED:
            handingOver_ = true;
            handOver(readable, writable, pipe);
            // A close that came before the hand-over has closed the connection as well.
            if (pipe.pipeHandle_ == INVALID_NATIVE_HANDLE) throw InterruptedException("acceptPipe aborted.");
            createNextInstance(path);
            return;
        case AcceptResult::TIMED_OUT:
            throw TimeoutException("QvPipe accept timeout");
        case AcceptResult::ABORTED:
            logInfo("Accept aborted.");
            throw InterruptedException("acceptPipe aborted.");
        case AcceptResult::CONNECT_ERROR:
            throw QvPipeException("acceptPipe failed");
        default:
            logError("Wait failed in Accept.");
            throw QvPipeException("QvPipe wait failed in accept");  // log and exception differ on purpose
    }
}

void ServerQvPipe::handOver(bool readable, bool writable, QvPipe& pipe) {
    pipe.name_ = name_;
    pipe.readable_ = readable;
    pipe.writable_ = writable;
    pipe.pipeHandle_ = pipeHandle_.exchange(INVALID_NATIVE_HANDLE);
    pipe.eventHandle_ = eventHandle_.exchange(INVALID_NATIVE_HANDLE);
}

/// close() may have come between the hand-over and the new instance; then nobody else would ever close the new one.
void ServerQvPipe::createNextInstance(const std::string& path) {
    bindPipe(path, false);
    if (closed_) closeHandles();
}

/// After a failed create there is no instance to wait on: try again, but slowly, since the reason may still be there.
/// Never for a name that could not be taken in the first place: it may be somebody else's.
void ServerQvPipe::ensureInstance(const std::string& path) {
    if (pipeHandle_ != INVALID_NATIVE_HANDLE || closed_ || lastInstance_ == INVALID_NATIVE_HANDLE) return;
    try {
        createNextInstance(path);
    } catch (BindException&) {
        for (int waited = 0; waited < RETRY_BACKOFF_MS && !closed_; waited += RETRY_STEP_MS) {
            System::sleepMs(RETRY_STEP_MS);
        }
        throw;
    }
}

void ServerQvPipe::close() {
    if (closed_) return;
    setClosed(true);  // first, so that the accept that the next step ends finds out why
    closeHandles();
}

void ServerQvPipe::closeHandles() {
    const NativeHandle pipeHandle = pipeHandle_.exchange(INVALID_NATIVE_HANDLE);
    const NativeHandle eventHandle = eventHandle_.exchange(INVALID_NATIVE_HANDLE);
    platformCloseServer(pipeHandle, eventHandle);
}

bool ServerQvPipe::isClosed() const {
    return closed_;
}

void ServerQvPipe::setClosed(bool closed) {
    closed_ = closed;
}

void ServerQvPipe::setAcceptTimeout(int milliseconds) {
    acceptTimeout_ = milliseconds;
}

int ServerQvPipe::getAcceptTimeout() const {
    return acceptTimeout_;
}

}  // namespace Quovane::Io
