#include "faults/Exchange.h"

#include <dirent.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace qvtp_test::faults {

namespace {

constexpr int IDLE_WAIT_MS = 1;
constexpr int CONNECT_LIMIT_MS = 2000;

const std::string WHOLE = "/whole";
const std::string STREAM = "/stream";
const std::string CLOSING = "/close";
const std::string WAITING = "/wait";

/// What a handler throws that is not of the library. Its block is the runtime's own.
struct Foreign {};

std::size_t readPattern(std::istream& in, bool& right) {
    char piece[777];
    std::size_t size = 0;
    for (;;) {
        in.read(piece, sizeof piece);
        const auto count = static_cast<std::size_t>(in.gcount());
        if (count == 0) return size;
        for (std::size_t i = 0; i < count; ++i) right = right && piece[i] == patternAt(size + i);
        size += count;
    }
}

/// The stream throws where it goes bad; its end is no exception.
std::size_t writePattern(std::ostream& out, std::size_t size) {
    char piece[1000];
    for (std::size_t written = 0; written < size;) {
        const std::size_t count = std::min(size - written, sizeof piece);
        for (std::size_t i = 0; i < count; ++i) piece[i] = patternAt(written + i);
        out.write(piece, static_cast<std::streamsize>(count));
        written += count;
    }
    return size;
}

std::string statusOutcome(int status) {
    return "status " + std::to_string(status);
}

}  // namespace

char patternAt(std::size_t i) {
    return static_cast<char>((i * 31 + i / 251) % 251);
}

bool isPattern(const char* data, std::size_t size) {
    for (std::size_t i = 0; i < size; ++i) {
        if (data[i] != patternAt(i)) return false;
    }
    return true;
}

PatternBuffer::int_type PatternBuffer::underflow() {
    if (left_ == 0) return traits_type::eof();
    const std::size_t count = std::min(left_, sizeof piece_);
    for (std::size_t i = 0; i < count; ++i) piece_[i] = patternAt(position_ + i);
    left_ -= count;
    position_ += count;
    setg(piece_, piece_, piece_ + count);
    return traits_type::to_int_type(piece_[0]);
}

void EchoHandler::handleNotify(QvtpServerRequest* request) {
    char* data = nullptr;
    std::size_t size = 0;
    request->getBody(&data, size);
    const std::unique_ptr<char[]> owner(data);
    if (!isPattern(data, size)) ++wrong;
    if (notifiedSize == 0 || notifiedSize == size) ++notified;
}

void EchoHandler::handlePost(QvtpServerRequest* request, QvtpServerResponse* response) {
    const std::string resource = request->getResource();
    if (resource == STREAM) return answerStream(*request, *response);
    if (resource == WAITING) {
        ++waiting;
        while (!released) std::this_thread::sleep_for(std::chrono::milliseconds(IDLE_WAIT_MS));
        --waiting;
    }
    answerWhole(*request, *response);
    if (resource == CLOSING) throw Foreign();
}

void EchoHandler::answerWhole(QvtpServerRequest& request, QvtpServerResponse& response) {
    char* data = nullptr;
    std::size_t size = 0;
    request.getBody(&data, size);
    const std::unique_ptr<char[]> owner(data);
    if (!isPattern(data, size)) ++wrong;
    response.setStatusCode(QvtpMessage::STATUS_OK);
    response.setBody(data, size);
    response.send();
}

/// Reads everything first; the length that came is the length that goes back.
void EchoHandler::answerStream(QvtpServerRequest& request, QvtpServerResponse& response) {
    bool right = true;
    const std::size_t size = readPattern(*request.getBodyStream(), right);
    response.setStatusCode(right ? QvtpMessage::STATUS_OK : QvtpMessage::STATUS_BAD_REQUEST);
    writePattern(*response.getBodyStream(), size);
    response.send();
}

EchoServer::EchoServer() : name(uniquePipeName("faults")) {}

EchoServer::~EchoServer() {
    stop();
}

void EchoServer::construct(int accessMode, int idleTimeoutMs, int receiveTimeoutMs, int workers) {
    server = std::make_unique<QvtpServer>(name, accessMode);
    server->setHandler(&handler);
    server->setUnhandledExceptionPolicy(QvtpServer::CLOSE);
    server->setOption(QvtpServer::MAX_REQUEST_PROCESSORS, workers);
    server->setOption(QvtpServer::IDLE_TIMEOUT, idleTimeoutMs);
    server->setOption(QvtpServer::RECEIVE_TIMEOUT, receiveTimeoutMs);
}

void EchoServer::start() {
    ended_ = false;
    thread_ = std::thread([this] {
        const Working working(SERVER);
        server->run();
        ended_ = true;
    });
}

bool EchoServer::waitUntilItRuns() const {
    return soon([this] { return server->isRunning() || ended_; }) && !ended_;
}

void EchoServer::stop() {
    if (server != nullptr) server->shutdown();
    if (thread_.joinable()) thread_.join();
    server.reset();
}

std::unique_ptr<QvtpClient> newClient() {
    auto client = std::make_unique<QvtpClient>();
    client->setOption(QvtpClient::CONNECTION_TIMEOUT, CONNECT_LIMIT_MS);
    return client;
}

std::string postWhole(QvtpClient& client, const std::string& name, const std::string& resource, std::size_t size) {
    std::vector<char> body(size);
    for (std::size_t i = 0; i < size; ++i) body[i] = patternAt(i);
    int status = 0;
    bool right = false;
    const std::string thrown = thrownBy([&] {
        const Working working(CLIENT);
        PostRequest request(&client, name, resource);
        request.setBody(body.data(), body.size());
        const std::unique_ptr<QvtpResponse> response(request.execute());
        status = response->getStatusCode();
        char* data = nullptr;
        std::size_t length = 0;
        response->getBody(&data, length);
        const std::unique_ptr<char[]> owner(data);
        right = length == size && isPattern(data, length);
    });
    if (thrown != "nothing") return thrown;
    if (status != QvtpMessage::STATUS_OK) return statusOutcome(status);
    return right ? RIGHT : "WRONG body with status 200";
}

std::string postStream(QvtpClient& client, const std::string& name, std::size_t size) {
    int status = 0;
    bool right = true;
    std::size_t read = 0;
    const std::string thrown = thrownBy([&] {
        PatternBuffer buffer(size);
        std::istream body(&buffer);
        const Working working(CLIENT);
        PostRequest request(&client, name, STREAM);
        request.setBodyStream(&body);
        const std::unique_ptr<QvtpResponse> response(request.execute());
        status = response->getStatusCode();
        read = readPattern(*response->getBodyStream(), right);
    });
    if (thrown != "nothing") return thrown;
    if (status != QvtpMessage::STATUS_OK) return statusOutcome(status);
    if (!right || read > size) return "WRONG body with status 200";
    // As the header of the message has it: a chunked body that is cut off just ends.
    return read == size ? RIGHT : "cut off";
}

std::string notify(QvtpClient& client, const std::string& name, std::size_t size) {
    std::vector<char> body(size);
    for (std::size_t i = 0; i < size; ++i) body[i] = patternAt(i);
    const std::string thrown = thrownBy([&] {
        const Working working(CLIENT);
        NotifyRequest request(&client, name, WHOLE);
        request.setBody(body.data(), body.size());
        request.execute();
    });
    return thrown == "nothing" ? RIGHT : thrown;
}

std::string onceServed(const std::function<std::string()>& exchange) {
    const auto isDenied = [](const std::string& outcome) {
        for (const char* text : {"Could not connect to pipe.", "Timed out connecting to pipe", "QvPipe read failed.",
                                 "Reached the stream end-of-file before the expected new line."}) {
            if (outcome.find(text) != std::string::npos) return true;
        }
        return false;
    };
    std::string outcome;
    soon([&] { return !isDenied(outcome = exchange()); }, 1000);
    return outcome;
}

bool soon(const std::function<bool()>& condition, int limitMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(limitMs);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

int openDescriptors() {
    DIR* const directory = ::opendir("/proc/self/fd");
    if (directory == nullptr) return -1;
    int count = 0;
    while (::readdir(directory) != nullptr) ++count;
    ::closedir(directory);
    return count - 3;  // this one, and the two dots
}

}  // namespace qvtp_test::faults
