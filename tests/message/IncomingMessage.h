#pragma once

#include "common/Utf8String.h"
#include "examples/BodyOf.h"
#include "message/DirectionLabel.h"
#include "message/QvtpMessageInImpl.h"

#include <cstddef>
#include <istream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>

namespace qvtp_test {

/// An incoming message over bytes in memory.
class IncomingMessage {
  public:
    using QvtpMessageInImpl = Quovane::Internal::Qvtp::QvtpMessageInImpl;

    explicit IncomingMessage(const std::string& bytes, int bufferSize = 16,
                             const std::string& label = Quovane::Internal::Qvtp::DirectionLabel::ACCEPT)
        : pipe_(bytes), message_(&pipe_, bufferSize, label, &converter_) {}

    QvtpMessageInImpl* operator->() { return &message_; }
    std::string body() { return example::bodyOf(message_); }
    /// What was not read of the bytes.
    std::string left() {
        pipe_.clear();
        return {std::istreambuf_iterator<char>(pipe_), {}};
    }

  private:
    std::istringstream pipe_;
    Quovane::Soa::Common::Xml::Utf8String converter_;
    QvtpMessageInImpl message_;
};

}  // namespace qvtp_test
