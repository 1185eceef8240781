#pragma once
#include <qvtp/easy/Options.h>

namespace qvtp {
/// The answer to a POST: what a handler returns, and what Client::post() returns. A value.
class Reply {
  public:
    using Writer = std::function<void(std::ostream&)>;
    /// 200 with this body, of any bytes.
    Reply(std::string body = {}) : body_(std::move(body)) {}
    Reply(const char* body) : body_(body) {}
    /// A status from 100 to 999, with its usual reason ("None" if it has none).
    explicit Reply(int status, std::string body = {}) : status_(status), body_(std::move(body)) {}
    /// 200 with a body of any size. When the handler has returned, the writer writes it, on the same thread. It goes
    /// out in pieces of 4096 bytes, or as often as it is flushed. Read the whole body of the request before: its client
    /// reads nothing until all of that is written. A writer that throws cuts the body off.
    static Reply stream(Writer writer) {
        Reply reply;
        return reply.writer_ = std::move(writer), reply;
    }
    /// The same from a stream, to its end. One that goes bad before cuts the body off.
    static Reply stream(const std::shared_ptr<std::istream>& source) {
        return stream([source](std::ostream& out) {
            for (char piece[4096]; source->good();) out.write(piece, source->read(piece, sizeof piece).gcount());
            if (!source->eof()) throw std::runtime_error("The stream of a reply has failed before its end.");
        });
    }
    int status() const { return status_; }
    bool ok() const { return status_ >= 200 && status_ < 300; }
    const std::string& reason() const { return reason_; }  ///< as it was received or set
    const Headers& headers() const { return headers_; }
    std::string header(std::string_view name) const { return valueOf(headers_, name); }  ///< as valueOf()
    const std::string& body() const& { return body_; }
    std::string body() && { return std::move(body_); }
    const Writer& writer() const { return writer_; }  ///< null unless stream() made the reply
    Reply& setStatus(int status) { return status_ = status, *this; }
    Reply& setReason(std::string reason) { return reason_ = std::move(reason), *this; }
    Reply& setBody(std::string body) { return body_ = std::move(body), *this; }
    Reply& addHeader(std::string_view name, std::string_view value) {
        return headers_.emplace_back(name, value), *this;
    }

  private:
    int status_ = 200;
    std::string reason_, body_;
    Headers headers_;
    Writer writer_;
};
}  // namespace qvtp
