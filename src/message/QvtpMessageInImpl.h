#pragma once

#include <qvtp/message/QvtpMessageIn.h>

#include "common/Utf8String.h"
#include "message/BodySource.h"
#include "message/HeaderBlock.h"
#include "message/QvtpIStream.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Quovane::Internal::Qvtp {

/// Reads one message from a stream, for requests and responses alike. The head is read on first need and never again,
/// also when that failed: then the start line is a stand-in and there is no body.
class QvtpMessageInImpl : public Quovane::Qvtp::QvtpMessageIn {
  public:
    using Utf8String = Quovane::Soa::Common::Xml::Utf8String;

    /// Neither stream nor converter is owned. `label`: one of DirectionLabel, which it refers to.
    QvtpMessageInImpl(std::istream* pipeStream, int bufferSize, const std::string& label, Utf8String* converter);
    ~QvtpMessageInImpl() override;

    std::string getStartLine() override;
    /// The same without a copy, in the message's own memory.
    std::string_view startLine();
    std::string getHeader(const std::string& name) const override;
    std::vector<std::string> getHeaders(const std::string& name) const override;
    std::vector<std::string> getHeaderNames() override;
    void getBody(char** data, size_t& length) override;
    std::istream* getBodyStream() override;

    /// The reader of the body, null while there is none. It shows where the message ends.
    std::shared_ptr<InputBuffer> bodyReader() const;

  private:
    void readHead();
    std::string standInStartLine() const;
    std::string_view readStartLine(std::string& room);
    std::uint64_t findBodyLength();
    bool isChunked() const;
    BodySource& requireBody();
    template <typename Source>
    void readBody(Source& body, char** data, size_t& length);

    HeaderBlock headers_;
    std::istream* pipeStream_;  // not owned
    int bufferSize_;
    const std::string& label_;
    bool headAsked_ = false;
    std::string_view startLine_;               // empty while there is no head
    std::string standIn_;                      // for it, if it was asked for then
    std::optional<int> announcedLength_;       // of the body, if its headers have one
    std::optional<BodySource> body_;           // as soon as there is a head
    std::unique_ptr<QvtpIStream> bodyStream_;  // if it was asked for: then only it reads the body
    Utf8String* converter_;                    // not owned
};

}  // namespace Quovane::Internal::Qvtp
