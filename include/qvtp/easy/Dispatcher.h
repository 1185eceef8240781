#pragma once
#include <qvtp/easy/Reply.h>
#include <qvtp/easy/Request.h>

namespace qvtp::detail {
/// What a server does with its requests. A handler that does not return keeps it, and the handlers of its time, alive.
class Dispatcher final : public exact::QvtpHandler, public std::enable_shared_from_this<Dispatcher> {
  public:
    using Handler = std::function<Reply(const Request&)>;
    using Routes = std::map<std::string, Handler>;  // a prefix ends with '*'
    struct Handlers {
        Routes posts, notifies;
        std::function<void(const Request&, const std::string&)> onError;
    };
    std::shared_ptr<const Handlers> handlers = std::make_shared<Handlers>();  // replaced only while no server runs
    using In = exact::QvtpServerRequest;
    using Out = exact::QvtpServerResponse;
    void handlePost(In* in, Out* out) override { handle(*in, out, &ServerCounters::posts); }
    void handleNotify(In* in) override { handle(*in, nullptr, &ServerCounters::notifies); }
    bool isInHandler() const { return current_ == this; }
    ServerCounters counters() const { return std::lock_guard<std::mutex>(mutex_), counters_; }

  private:
    inline static thread_local const Dispatcher* current_ = nullptr;  // whose handler the thread is in
    void count(std::uint64_t ServerCounters::*counter, int by = 1) {
        const std::lock_guard<std::mutex> guard(mutex_);
        counters_.*counter += static_cast<std::uint64_t>(by);
    }
    void handle(In& in, Out* out, std::uint64_t ServerCounters::*kind) {
        const std::shared_ptr<const Handlers> own = handlers;  // stays when others are set
        count(kind);
        count(&ServerCounters::inHandlers);
        const auto leave = [self = shared_from_this()](const Dispatcher**) {
            current_ = nullptr;
            self->count(&ServerCounters::inHandlers, -1);
        };
        const std::unique_ptr<const Dispatcher*, decltype(leave)> use(&current_, leave);
        *use = this;
        Request request(in);
        const Handler* const handler = find(out != nullptr ? own->posts : own->notifies, request);
        const auto run = [&] { return checked((*handler)(request)); };
        const Reply reply = handler != nullptr ? guarded(*own, request, nullptr, run) : refuse(*own, request);
        if (out == nullptr) return;
        out->setStatusCode(reply.status());
        if (!reply.reason().empty()) out->setReasonPhrase(reply.reason());
        copyHeaders(reply.headers(), *out);
        if (!reply.writer()) out->setBody(reply.body().data(), reply.body().size());
        std::ostream* const body = reply.writer() ? out->getBodyStream() : nullptr;
        if (body != nullptr) guarded(*own, request, body, [&] { reply.writer()(*body); });
        out->send();
    }
    /// The resource itself, else its longest prefix, else null.
    static const Handler* find(const Routes& routes, Request& request) {
        request.prefixLength_ = request.resource().size();
        auto found = routes.find(request.resource());
        for (std::size_t length = request.prefixLength_ + 1; found == routes.end() && length-- > 0;) {
            found = routes.find(request.resource().substr(0, length) + "*");
            request.prefixLength_ = length;
        }
        return found != routes.end() ? &found->second : nullptr;
    }
    static Reply checked(Reply&& reply) {
        const bool isStatus = reply.status() >= 100 && reply.status() <= 999;
        const std::string fault = isStatus ? faultOf(reply.headers()) : "A reply has a status from 100 to 999.";
        return fault.empty() ? std::move(reply) : throw Error(ErrorKind::misuse, fault);
    }
    Reply refuse(const Handlers& own, Request& request) {
        const Handler* const other = find(request.method() == "POST" ? own.notifies : own.posts, request);
        count(other != nullptr ? &ServerCounters::wrongMethod : &ServerCounters::notFound);
        if (other != nullptr) return Reply(501, request.resource() + " is not for " + request.method() + ".\n");
        return Reply(404, "There is no " + request.resource() + " here.\n");
    }
    /// Reports what the program's own code throws. It leaves as an exception that the library answers with 500, and
    /// takes for no failure of the request's connection. Such a failure passes: nobody is left to be answered.
    template <typename Action>
    auto guarded(const Handlers& own, const Request& request, const std::ios* out, Action run) -> decltype(run()) {
        std::string text = "What it has thrown is no std::exception.";
        try {
            return run();
        } catch (const std::exception& e) {
            if (request.hasFailed() || (out != nullptr && out->bad())) throw;
            text = e.what();
        } catch (const io::IllegalStateException& e) {
            text = e.getMessage();
        } catch (...) {
        }
        count(&ServerCounters::handlerErrors);
        try {
            if (own.onError) own.onError(request, text);
        } catch (...) {
        }
        throw std::runtime_error(text);
    }
    mutable std::mutex mutex_;  // guards counters_
    ServerCounters counters_;
};
}  // namespace qvtp::detail
