#pragma once
#include <qvtp/easy/Options.h>
#include <optional>

namespace qvtp {
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
    std::string header(std::string_view name) const { return valueOf(headers_, name); }  ///< as valueOf()
    /// The process that has connected, on Linux also its user and group: the system says so, not the client.
    Peer peer() const { return in_.getPeer(); }
    /// The whole body, read at the first call. If the connection fails meanwhile, let the exception pass: nobody is
    /// left to be answered. A body that its client streams and cuts off ends early, and nothing shows that here: where
    /// it matters, compare a length or a digest of your own.
    const std::string& body() const {
        if (body_) return *body_;
        hasFailed_ = true;  // until it has not
        body_ = detail::bodyOf(in_);
        return hasFailed_ = false, *body_;
    }
    /// The body as a stream, of any size; instead of body(). Here any body that is cut off ends early.
    std::istream& stream() const { return *(stream_ = in_.getBodyStream()); }

  private:
    friend class detail::Dispatcher;
    explicit Request(detail::exact::QvtpServerRequest& in)
        : in_(in), method_(in.getMethod()), resource_(in.getResource()), headers_(detail::headersOf(in)) {}
    bool hasFailed() const { return hasFailed_ || (stream_ != nullptr && stream_->bad()); }
    detail::exact::QvtpServerRequest& in_;
    const std::string method_, resource_;
    std::size_t prefixLength_ = 0;
    const Headers headers_;
    mutable std::istream* stream_ = nullptr;  // of the request
    mutable std::optional<std::string> body_;
    mutable bool hasFailed_ = false;
};
}  // namespace qvtp
