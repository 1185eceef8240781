#pragma once

#include <qvtp/easy/Reply.h>
#include <qvtp/easy/Request.h>
#include <qvtp/io/IllegalStateException.h>
#include <qvtp/server/QvtpServerResponse.h>

#include <map>
#include <mutex>

namespace qvtp::detail {

/// What a server does with its requests. A handler that does not return keeps it alive, whatever becomes of the server.
/// Routes are read without a lock: none is added while the server runs.
class Dispatcher final : public exact::QvtpHandler, public std::enable_shared_from_this<Dispatcher> {
  public:
    using Routes = std::map<std::string, std::function<Reply(const Request&)>>;  // a prefix ends with '*'

    Routes posts, notifies;
    std::function<void(const Request&, const std::string&)> onError;

    void handlePost(exact::QvtpServerRequest* in, exact::QvtpServerResponse* out) override {
        handle(*in, out, posts, notifies, &ServerCounters::posts);
    }
    void handleNotify(exact::QvtpServerRequest* in) override {
        handle(*in, nullptr, notifies, posts, &ServerCounters::notifies);
    }
    /// Whether the calling thread is in a handler of this object.
    bool isInHandler() const { return current() == this; }
    ServerCounters counters() const {
        const std::lock_guard<std::mutex> guard(mutex_);
        return counters_;
    }

  private:
    using Counter = std::uint64_t ServerCounters::*;

    struct Use {
        Use(Dispatcher& dispatcher, Counter kind) : self(dispatcher.shared_from_this()) {
            self->count(kind);
            self->count(&ServerCounters::inHandlers);
            current() = self.get();
        }
        ~Use() {
            current() = nullptr;
            self->count(&ServerCounters::inHandlers, -1);
        }
        const std::shared_ptr<Dispatcher> self;
    };
    static const Dispatcher*& current() {
        static thread_local const Dispatcher* dispatcher = nullptr;
        return dispatcher;
    }
    void count(Counter counter, int by = 1) {
        const std::lock_guard<std::mutex> guard(mutex_);
        counters_.*counter += static_cast<std::uint64_t>(by);
    }

    void handle(exact::QvtpServerRequest& in, exact::QvtpServerResponse* out, const Routes& own, const Routes& other,
                Counter kind) {
        const Use use(*this, kind);
        Request request(in);
        try {
            const auto* const handler = find(own, request);
            const Reply reply = handler != nullptr ? call(*handler, request) : refuse(request, find(other, request));
            if (out != nullptr) send(reply, *out);
        } catch (io::QvPipeException&) {  // of the request's own connection: nobody is left to be answered
            throw;
        } catch (const io::IllegalStateException&) {
            throw;
        } catch (const std::exception& e) {  // the library answers with 500
            report(request, e.what());
            throw;
        } catch (...) {
            report(request, "what it has thrown is no std::exception");
            throw;
        }
    }
    /// The resource itself, else its longest prefix, else null.
    static const Routes::mapped_type* find(const Routes& routes, Request& request) {
        request.prefixLength_ = request.resource().size();
        auto found = routes.find(request.resource());
        for (std::size_t length = request.prefixLength_ + 1; found == routes.end() && length-- > 0;) {
            found = routes.find(request.resource().substr(0, length) + "*");
            request.prefixLength_ = length;
        }
        return found != routes.end() ? &found->second : nullptr;
    }
    /// What the handler met on other pipes looks to the library like a failure of this one, and is made different here.
    static Reply call(const Routes::mapped_type& handler, const Request& request) try {
        return handler(request);
    } catch (...) {
        if (request.hasFailed()) throw io::QvPipeException("The body of the request could not be read.");
        try {
            throw;
        } catch (io::QvPipeException& e) {
            throw std::runtime_error(e.getMessage());
        } catch (const io::IllegalStateException& e) {
            throw std::runtime_error(e.getMessage());
        }
    }
    Reply refuse(const Request& request, const void* otherHandler) {
        count(otherHandler != nullptr ? &ServerCounters::wrongMethod : &ServerCounters::notFound);
        if (otherHandler != nullptr) return Reply(501, request.resource() + " is not for " + request.method() + ".\n");
        return Reply(404, "There is no " + request.resource() + " here.\n");
    }
    static void send(const Reply& reply, exact::QvtpServerResponse& out) {
        checkHeaders(reply.headers());
        if (reply.status() < 100 || reply.status() > 999)
            throw Error(ErrorKind::misuse, "A reply has a status from 100 to 999.");
        out.setStatusCode(reply.status());
        if (!reply.reason().empty()) out.setReasonPhrase(reply.reason());
        copyHeaders(reply.headers(), out);
        reply.writer() ? reply.writer()(*out.getBodyStream()) : out.setBody(reply.body().data(), reply.body().size());
        out.send();
    }
    void report(const Request& request, const std::string& text) {
        count(&ServerCounters::handlerErrors);
        try {
            if (onError) onError(request, text);
        } catch (...) {  // it was asked for nothing but a report
        }
    }

    mutable std::mutex mutex_;  // guards counters_
    ServerCounters counters_;
};
}  // namespace qvtp::detail
