#pragma once

#include <qvtp/message/QvtpMessageOut.h>

#include "common/BodyBlock.h"
#include "common/Utf8String.h"
#include "message/HeadText.h"
#include "message/HeaderBlock.h"
#include "message/QvtpHeaderWriter.h"

#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

namespace Quovane::Internal::Qvtp {

class MessageSink;

/// Holds the headers and the body of one message and writes its head, for requests and responses alike. The start line
/// is its owner's.
class QvtpMessageOutImpl : public Quovane::Qvtp::QvtpMessageOut, public QvtpHeaderWriter {
  public:
    using QvtpMessageOut = Quovane::Qvtp::QvtpMessageOut;
    using Utf8String = Quovane::Soa::Common::Xml::Utf8String;

    /// The body length of a message without a body.
    static constexpr std::uint64_t NO_BODY = ~std::uint64_t{0};

    /// Neither owner nor converter is owned. `label`: one of DirectionLabel, which it refers to.
    QvtpMessageOutImpl(QvtpMessageOut* owner, const std::string& label, Utf8String* converter);
    ~QvtpMessageOutImpl() noexcept override;

    std::string getStartLine() override;
    void addHeader(const std::string& name, const std::string& value) override;
    void setHeader(const std::string& name, const std::string& value) override;
    void removeHeader(const std::string& name) override;
    void setBody(const char* data, size_t length) override;
    bool isCommitted() const override;

    /// Whether setBody() was called.
    bool hasBody() const { return body_.isThere(); }
    /// The length given to setBody(), or NO_BODY.
    std::uint64_t getBodyLength() const;
    /// Whether the headers announce the body as it is sent, in chunks or whole: otherwise its receiver ends the message
    /// elsewhere.
    bool announcesBody(bool chunked) const;
    /// Writes the body given to setBody(), if any.
    void writeBody(std::ostream* out) const;
    void writeHeaders(std::ostream* out) override;
    /// Sends head and body of a request in one write, where there is a short way. False, with nothing done, where there
    /// is none or no body: then the caller writes head and body to the stream. The message counts as committed as soon
    /// as one byte has left.
    bool sendWhole(MessageSink* sink);
    /// The same for a response, which counts as committed before that. `bufferSize`: what holds back a head on the way
    /// over streams; a larger one goes that way.
    bool answerWhole(MessageSink* sink, int bufferSize);

  private:
    struct Head {
        HeadText composed;
        std::string_view text;
        std::string_view startLine;
    };

    void compose(Head& head);
    void commit(const Head& head);
    std::size_t writeSome(MessageSink& sink, const Head& head);
    void writeRest(MessageSink& sink, const Head& head, std::size_t sent) const;

    QvtpMessageOut* owner_;  // not owned
    const std::string& label_;
    HeaderBlock headers_;
    bool committed_ = false;
    BodyBlock body_;
    std::size_t bodyLength_ = 0;
    bool lengthIsSure_ = false;  // the headers begin with that length
    Utf8String* converter_;      // not owned
};

}  // namespace Quovane::Internal::Qvtp
