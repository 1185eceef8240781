#pragma once
#include <qvtp/easy/Call.h>
#include <qvtp/easy/Reply.h>

namespace qvtp {
/// Sends requests to the server of one pipe name. It connects when it needs to, and keeps connections open.
/// Any thread may use it, several at once. In a forked child it makes connections of its own. Every failure is an
/// Error; what the server answers is none, whatever its status.
class Client {
  public:
    /// `timeout`: how long each call waits for a busy server, then for the reply, and for each pause within that.
    explicit Client(std::string pipeName, Milliseconds timeout = ClientOptions().timeout)
        : Client(std::move(pipeName), ClientOptions{timeout}) {}
    Client(std::string pipeName, const ClientOptions& options)
        : pipeName_(std::move(pipeName)), options_(options), connections_(options_.idleTimeout) {}
    /// Sends a POST and waits for the reply. `resource`: what it is about, in the server's own terms, UTF-8, not empty,
    /// without blanks and control characters (misuse): percentEncode() what may have some.
    Reply post(const std::string& resource, const Body& body = "", const CallOptions& options = {}) {
        return send<detail::exact::PostRequest>("POST " + resource, resource, body, options);
    }
    /// Sends a NOTIFY, which is not answered: when it returns, the system has taken it, and no more is known.
    void notify(const std::string& resource, const Body& body = "", const CallOptions& options = {}) {
        send<detail::exact::NotifyRequest>("NOTIFY " + resource, resource, body, options);
    }
    /// Ends all calls, and later ones, as closed; one that waits for a busy server when its connect time-out is over.
    void close() { connections_.close(); }

  private:
    static Milliseconds firstOf(Milliseconds own, Milliseconds common) { return own.count() >= 0 ? own : common; }
    template <typename RequestType>
    Reply send(const std::string& what, const std::string& resource, const Body& body, const CallOptions& options) {
        std::string fault = resource.empty() ? "It has no resource." : detail::faultOf(options.headers);
        if (detail::hasControls(resource) || resource.find(' ') != resource.npos)
            fault = "A resource has no blanks and no control characters: percentEncode() its parts.";
        if (!fault.empty()) throw detail::errorOf(ErrorKind::misuse, pipeName_, what + " failed. " + fault);
        for (int retry = 0;; ++retry) {
            try {
                return exchange<RequestType>(what, resource, body, options);
            } catch (const Error& e) {
                // After the first time no connection is left that could break: that there is no server goes on.
                const bool isGone = retry > 0 && e.kind() == ErrorKind::no_server;
                if ((e.kind() != ErrorKind::not_sent && !isGone) || retry >= options_.retries) throw;
            }
            std::this_thread::sleep_for(options_.retryPause);
        }
    }
    template <typename RequestType>
    Reply exchange(const std::string& what, const std::string& resource, const Body& body, const CallOptions& options) {
        const Milliseconds timeout = firstOf(options.timeout, options_.timeout);
        const Milliseconds connecting = firstOf(options.connectTimeout, firstOf(options_.connectTimeout, timeout));
        detail::Call call(connections_, pipeName_, what, numberOf(connecting));
        call.onConnected = options.onConnected;
        if (!body.source() && options.onSent) call.onEnd = [&] { options.onSent({body.whole().size(), body.total()}); };
        detail::exact::QvtpClient client(&call);
        client.setResponseTimeout(numberOf(timeout));
        Reply reply;
        bool isReadToEnd = false;
        {
            detail::BodyWriter writer(body, options.onSent);
            std::istream source(&writer);
            source.exceptions(std::ios_base::badbit);  // what a callback throws passes through the library
            RequestType request(&client, pipeName_, resource);
            try {
                detail::copyHeaders(options.headers, request);
                body.source() ? request.setBodyStream(&source)
                              : request.setBody(body.whole().data(), body.whole().size());
                if constexpr (std::is_same_v<RequestType, detail::exact::PostRequest>) {
                    const std::unique_ptr<detail::exact::QvtpResponse> response(request.execute());
                    isReadToEnd = receive(*response, call, options, reply);
                } else {
                    request.execute();
                    if (call.onEnd) call.onEnd();
                }
            } catch (...) {
                call.translate(request.isCommitted());
            }
        }
        // The library ends a stream silently, whatever the body ends with, but does not use its connection again.
        if (call.hasEnded) call.fail(ErrorKind::cut_off);
        const bool isChunked = reply.header("Content-Length").empty();  // else more came than belongs to it
        if (isReadToEnd && call.hasBroken && isChunked) call.fail(ErrorKind::malformed_reply, "Its chunks are broken.");
        return reply;
    }
    /// True if the body was read to its end.
    static bool receive(detail::exact::QvtpResponse& response, detail::Call& call, const CallOptions& options,
                        Reply& reply) {
        const std::string line = response.getStartLine();
        call.hasHead = true;
        reply.setStatus(response.getStatusCode()).setReason(response.getReasonPhrase());
        for (const auto& [name, value] : detail::headersOf(response)) reply.addHeader(name, value);
        Progress progress;
        const std::string length = reply.header("Content-Length");
        std::from_chars(length.data(), length.data() + length.size(), progress.total);
        const bool isRight = line.rfind("QVTP/", 0) == 0 && (progress.total >= 0 || length.empty());
        if (!isRight || reply.status() < 100 || reply.status() > 999)
            call.fail(ErrorKind::malformed_reply, "It begins with \"" + line + "\", its length is \"" + length + "\".");
        // Of what the library answers by itself before it closes the connection.
        call.isReusable = std::string("400 408 413 414 500").find(std::to_string(reply.status())) == line.npos;
        if (!options.onStream && !options.onPiece) return reply.setBody(detail::bodyOf(response)), true;
        std::istream& body = *response.getBodyStream();
        if (options.onStream) options.onStream(reply, body);
        for (char piece[16384]; options.onPiece && body.peek() != std::char_traits<char>::eof();) {
            const auto size = static_cast<std::size_t>(body.readsome(piece, sizeof piece));
            progress.bytes += size;
            options.onPiece({piece, size}, progress);
        }
        if (body.bad()) call.fail(ErrorKind::cut_off, "The body could not be read.");
        return body.eof();
    }
    const std::string pipeName_;
    const ClientOptions options_;
    detail::Connections connections_;
};
}  // namespace qvtp
