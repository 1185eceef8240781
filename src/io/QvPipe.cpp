#include <qvtp/io/QvPipe.h>

#include <qvtp/io/ConnectException.h>
#include <qvtp/io/IllegalStateException.h>
#include <qvtp/io/InterruptedException.h>
#include <qvtp/io/TimeoutException.h>

#include "common/Early.h"
#include "io/BindCheck.h"
#include "io/PipeControl.h"
#include "io/PipeStream.h"
#include "io/WriteCheck.h"
#include "platform/PipePlatform.h"

namespace Quovane::Io {

namespace {

using namespace Quovane::Internal::Qvtp;

constexpr int DEFAULT_CONNECT_TIMEOUT_MS = 10000;

}  // namespace

QVTP_EARLY const std::string QvPipe::PIPE_NAME_PREFIX = PIPE_PATH_PREFIX;

QvPipe::QvPipe() : connectTimeout_(DEFAULT_CONNECT_TIMEOUT_MS), prefix_(PIPE_NAME_PREFIX) {}

QvPipe::QvPipe(const std::string& name, bool readable, bool writable) : connectTimeout_(0), prefix_(PIPE_NAME_PREFIX) {
    try {
        connect(name, readable, writable);
    } catch (...) {
        // A connection whose event could not be made is open already, and no destructor will run.
        if (pipeHandle_ != INVALID_NATIVE_HANDLE) closePipe();
        throw;
    }
}

QvPipe::QvPipe(const QvPipe& other)
    : readable_(other.readable_),
      writable_(other.writable_),
      inputStream_(other.inputStream_),
      outputStream_(other.outputStream_),
      connectTimeout_(other.connectTimeout_),
      readTimeout_(other.readTimeout_),
      name_(other.name_),
      prefix_(other.prefix_),
      pipeHandle_(other.pipeHandle_.load()),
      eventHandle_(other.eventHandle_.load()) {}

QvPipe& QvPipe::operator=(const QvPipe& other) {
    if (this == &other) return *this;
    if (inputStream_ != other.inputStream_) orphan(inputStream_);
    if (outputStream_ != other.outputStream_) orphan(outputStream_);
    readable_ = other.readable_;
    writable_ = other.writable_;
    inputStream_ = other.inputStream_;
    outputStream_ = other.outputStream_;
    connectTimeout_ = other.connectTimeout_;
    readTimeout_ = other.readTimeout_;
    name_ = other.name_;
    prefix_ = other.prefix_;
    pipeHandle_ = other.pipeHandle_.load();
    eventHandle_ = other.eventHandle_.load();
    return *this;
}

QvPipe::~QvPipe() {
    closePipe();
    orphan(inputStream_);
    orphan(outputStream_);
}

/// This object stops being what the stream works on. Of a stream that goes with it nobody asks for more.
template <typename Stream>
void QvPipe::orphan(const std::shared_ptr<Stream>& stream) {
    if (stream == nullptr || stream.use_count() == 1) return;
    static_cast<PipeStream<Stream>&>(*stream).leave(*this);
}

void QvPipe::bind(const std::string& name, bool readable, bool writable) {
    checkBind(readable, writable, isBound());
    name_ = name;
    readable_ = readable;
    writable_ = writable;
}

bool QvPipe::isBound() const {
    return !name_.empty();
}

void QvPipe::connect() {
    if (!isBound()) throw IllegalStateException("Pipe not yet bound");
    connectPipe(prefix_ + name_, "/" + name_, readable_, writable_, connectTimeout_);
}

void QvPipe::connect(const std::string& name, bool readable, bool writable) {
    bind(name, readable, writable);
    connect();
}

void QvPipe::connectPipe(const std::string& path, const std::string& /*displayName*/, bool readable, bool writable,
                         int timeoutMs) {
    NativeHandle pipeHandle = INVALID_NATIVE_HANDLE;
    NativeHandle eventHandle = INVALID_NATIVE_HANDLE;
    const int result = platformConnect(path, readable, writable, timeoutMs, pipeHandle, eventHandle);
    pipeHandle_ = pipeHandle;
    eventHandle_ = eventHandle;
    switch (result) {
        case ConnectResult::CONNECTED:
            return;
        case ConnectResult::TIMED_OUT:
            throw TimeoutException("Timed out connecting to pipe");
        case ConnectResult::CANNOT_OPEN:
            throw ConnectException("Could not connect to pipe.");
        case ConnectResult::ACCESS_DENIED:
            throw ConnectException("Access denied.");
        default:
            throw QvPipeException("Unrecognized pipe connect error");
    }
}

void QvPipe::close() {
    closePipe();
}

/// Takes the handles before it closes them: no operation that starts from now on can meet a value that is used again.
void QvPipe::closePipe() {
    const NativeHandle pipeHandle = pipeHandle_.exchange(INVALID_NATIVE_HANDLE);
    const NativeHandle eventHandle = eventHandle_.exchange(INVALID_NATIVE_HANDLE);
    platformClose(pipeHandle, eventHandle);
}

std::istream* QvPipe::getInputStream() {
    if (!isBound() || !readable_) throw IllegalStateException("Pipe is not bound with read access.");
    if (inputStream_ == nullptr) inputStream_ = std::make_shared<InputStream>(this, PipeBufferBase<char>::INPUT_MODE);
    static_cast<InputStream&>(*inputStream_).adopt(this);
    return inputStream_.get();
}

std::ostream* QvPipe::getOutputStream() {
    if (!isBound() || !writable_) throw IllegalStateException("Pipe is not bound with write access.");
    if (outputStream_ == nullptr) {
        outputStream_ = std::make_shared<OutputStream>(this, PipeBufferBase<char>::OUTPUT_MODE);
    }
    static_cast<OutputStream&>(*outputStream_).adopt(this);
    return outputStream_.get();
}

void QvPipe::setReadTimeout(int milliseconds) {
    readTimeout_ = milliseconds;
}

int QvPipe::getReadTimeout() const {
    return readTimeout_;
}

void QvPipe::setConnectTimeout(int milliseconds) {
    connectTimeout_ = milliseconds;
}

int QvPipe::getConnectTimeout() const {
    return connectTimeout_;
}

int QvPipe::readPipe(char* buffer, int offset, int length, int timeout) {
    const int result = platformRead(pipeHandle_, eventHandle_, buffer + offset, length, timeout);
    switch (result) {
        case ReadResult::TIMED_OUT:
            throw TimeoutException("QvPipe read timeout.");
        case ReadResult::ABORTED:
            throw InterruptedException(READ_ABORTED);
        case ReadResult::FAILED:
            throw QvPipeException("QvPipe read failed.");
        default:
            return result < 1 ? -1 : result;
    }
}

void QvPipe::writePipe(const char* buffer, int offset, int length) {
    checkWritten(platformWrite(pipeHandle_, eventHandle_, buffer + offset, length));
}

}  // namespace Quovane::Io
