#pragma once
#include <qvtp/easy/Headers.h>
#include <chrono>
#include <functional>
#include <limits>
#include <thread>

namespace qvtp {
class Reply;
using Limits = Quovane::Qvtp::QvtpServer::Limits;     ///< what one request may take; all 0: without limit
using Peer = Quovane::Qvtp::QvtpServerRequest::Peer;  ///< who has connected; what is not known is -1
using Milliseconds = std::chrono::milliseconds;       ///< of all time-outs; 0 waits without limit
/// How far a streamed body has come.
struct Progress {
    std::uint64_t bytes = 0;  ///< so far
    std::int64_t total = -1;  ///< of the whole body; -1 if it is not known
};
/// What holds for all calls of a client.
struct ClientOptions {
    Milliseconds timeout = std::chrono::seconds(30);  ///< how long a call waits for its reply, and each pause within
    Milliseconds connectTimeout{-1};  ///< how long it waits for a busy server to take it; below 0: the same
    Milliseconds idleTimeout{10000};  ///< a connection idle for longer is closed; less than the server's
    int retries = 0;                  ///< how often a call that fails as not_sent is made again; no other kind is
    Milliseconds retryPause{100};     ///< before each
};
/// What holds for one call. The callbacks run during it, on its thread. What they throw leaves it as it is, but for
/// exceptions of the exact classes, which become an Error; it cuts off what is being sent.
struct CallOptions {
    Headers headers;
    Milliseconds timeout{-1};                     ///< as in ClientOptions, for this call; below 0: as there
    Milliseconds connectTimeout{-1};              ///< the same
    std::function<void()> onConnected;            ///< before the request is sent over one, new or kept
    std::function<void(const Progress&)> onSent;  ///< after each piece of a streamed body; after a whole one
    /// For a reply of any size: each piece of its body, as it comes. Reply::body() is empty then.
    std::function<void(std::string_view piece, const Progress&)> onPiece;
    /// The same as a stream, called once. What reading it throws becomes an Error when it leaves.
    std::function<void(const Reply& head, std::istream& body)> onStream;
};
/// What holds for a server.
struct ServerOptions {
    /// How many connections are served at once, each by a thread; 3 at least, 0: no limit. By default four for each
    /// processor of the machine, from 16 to 256. With more clients, silent ones make room for those that wait.
    int workers = static_cast<int>(std::clamp(std::thread::hardware_concurrency() * 4, 16U, 256U));
    Limits limits;
    Milliseconds idleTimeout = std::chrono::seconds(13);    ///< a connection without a new request is closed
    Milliseconds receiveTimeout = std::chrono::seconds(3);  ///< the longest pause within the body of a request
};
/// What a server has done since it was made, and what it does now.
struct ServerCounters {
    std::uint64_t posts = 0, notifies = 0;
    std::uint64_t notFound = 0;       ///< of both, those without a handler: 404, or dropped
    std::uint64_t wrongMethod = 0;    ///< those that have one for the other kind only: 501, or dropped
    std::uint64_t handlerErrors = 0;  ///< handlers that have thrown: 500, or dropped
    std::uint64_t inHandlers = 0;     ///< requests that are handled now
    int connections = 0;              ///< open now, those that have just ended included
    int workers = 0;                  ///< as in ServerOptions
};
inline int numberOf(Milliseconds time) {
    return static_cast<int>(std::clamp<Milliseconds::rep>(time.count(), 0, std::numeric_limits<int>::max()));
}
}  // namespace qvtp
