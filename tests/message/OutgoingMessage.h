#pragma once

#include <qvtp/message/QvtpMessageOut.h>

#include "common/Utf8String.h"
#include "message/DirectionLabel.h"
#include "message/QvtpMessageOutImpl.h"

#include <cstddef>
#include <string>

namespace qvtp_test {

/// An outgoing message with a fixed start line, as the public messages are to their implementation.
class OutgoingMessage : public Quovane::Qvtp::QvtpMessageOut {
  public:
    explicit OutgoingMessage(std::string startLine = "POST /r QVTP/1.0",
                             const std::string& label = Quovane::Internal::Qvtp::DirectionLabel::SEND)
        : startLine_(std::move(startLine)), impl_(this, label, &converter_) {}

    ~OutgoingMessage() noexcept override {}

    std::string getStartLine() override { return startLine_; }
    void addHeader(const std::string& name, const std::string& value) override { impl_.addHeader(name, value); }
    void setHeader(const std::string& name, const std::string& value) override { impl_.setHeader(name, value); }
    void removeHeader(const std::string& name) override { impl_.removeHeader(name); }
    void setBody(const char* data, std::size_t length) override { impl_.setBody(data, length); }
    void setBody(const std::string& body) { impl_.setBody(body.data(), body.size()); }
    bool isCommitted() const override { return impl_.isCommitted(); }

    Quovane::Internal::Qvtp::QvtpMessageOutImpl* operator->() { return &impl_; }
    Quovane::Internal::Qvtp::QvtpMessageOutImpl* impl() { return &impl_; }

  private:
    std::string startLine_;
    Quovane::Soa::Common::Xml::Utf8String converter_;
    Quovane::Internal::Qvtp::QvtpMessageOutImpl impl_;
};

}  // namespace qvtp_test
