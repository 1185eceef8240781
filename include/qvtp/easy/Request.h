#pragma once

#include <qvtp/easy/BodyReader.h>

#include <optional>

namespace qvtp {

namespace detail {
class Dispatcher;
}

/// A request as a handler sees it: on the handler's thread, during its call. Copy out what is needed longer.
class Request {
  public:
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    const std::string& method() const { return method_; }  ///< "POST" or "NOTIFY"
    /// As the client wrote it: percentDecode() undoes a percentEncode() of the client's.
    const std::string& resource() const { return resource_; }
    /// What follows the prefix of the handler's route; empty if the route is a whole resource.
    std::string rest() const { return resource_.substr(prefixLength_); }
    const Headers& headers() const { return headers_; }
    /// The value of a header in whatever case, or an empty text.
    std::string header(std::string_view name) const { return valueOf(headers_, name); }
    /// The process that has opened the connection, on Linux also its user and group: the system says so, not the
    /// client.
    Peer peer() const { return in_.getPeer(); }

    /// The whole body, read at the first call. If the connection fails meanwhile, let the exception pass: nobody is
    /// left to be answered. A body that its client streams and cuts off ends early, and nothing shows that here: where
    /// it matters, compare a length or a digest of your own.
    const std::string& body() const {
        if (!body_) body_ = reader().readAll();
        return *body_;
    }
    /// The body as a stream, for any size; instead of body(). It throws as body() does.
    std::istream& stream() const { return reader(), *stream_; }

  private:
    friend class detail::Dispatcher;

    explicit Request(Quovane::Qvtp::QvtpServerRequest& in)
        : in_(in), method_(in.getMethod()), resource_(in.getResource()), headers_(detail::headersOf(in)) {}

    detail::BodyReader& reader() const {
        if (reader_) return *reader_;
        reader_.emplace(*in_.getBodyStream(), detail::lengthOf(headers_), [](bool isThrown) {
            if (isThrown) throw;
            throw Error(ErrorKind::cut_off, "The body of a request ended before its end.");
        });
        stream_.emplace(&*reader_);
        stream_->exceptions(std::ios_base::badbit);
        return *reader_;
    }
    bool hasFailed() const { return reader_ && reader_->hasFailed(); }

    Quovane::Qvtp::QvtpServerRequest& in_;
    std::string method_, resource_;
    std::size_t prefixLength_ = 0;
    Headers headers_;
    mutable std::optional<detail::BodyReader> reader_;
    mutable std::optional<std::istream> stream_;
    mutable std::optional<std::string> body_;
};
}  // namespace qvtp
