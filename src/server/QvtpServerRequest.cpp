#include <qvtp/server/QvtpServerRequest.h>

#include <qvtp/io/QvPipeException.h>
#include <qvtp/server/QvtpServer.h>

#include "common/Utf8String.h"
#include "io/PipeControl.h"
#include "message/DirectionLabel.h"
#include "message/StartLine.h"
#include "server/ServerRequestImpl.h"

namespace Quovane::Qvtp {

using Internal::Qvtp::InputBuffer;
using Internal::Qvtp::PipeControl;
using Internal::Qvtp::ServerRequestImpl;
using Internal::Qvtp::StartLine;

QvtpServerRequest::QvtpServerRequest(QvtpServer* server, std::istream* in, Soa::Common::Xml::Utf8String* converter)
    : server_(server), converter_(converter) {
    const int bufferSize = server_->getIntegerOption(QvtpServer::BUFFER_SIZE);
    impl_ = std::make_unique<ServerRequestImpl>(in, bufferSize, Internal::Qvtp::DirectionLabel::ACCEPT, converter_);
}

QvtpServerRequest::~QvtpServerRequest() = default;

std::string QvtpServerRequest::getStartLine() {
    return impl_->getStartLine();
}

std::string QvtpServerRequest::getHeader(const std::string& name) const {
    return impl_->getHeader(name);
}

std::vector<std::string> QvtpServerRequest::getHeaders(const std::string& name) const {
    return impl_->getHeaders(name);
}

std::vector<std::string> QvtpServerRequest::getHeaderNames() {
    return impl_->getHeaderNames();
}

void QvtpServerRequest::getBody(char** data, size_t& length) {
    impl_->getBody(data, length);
}

std::istream* QvtpServerRequest::getBodyStream() {
    return impl_->getBodyStream();
}

std::shared_ptr<InputBuffer> QvtpServerRequest::bodyReader() const {
    return impl_->bodyReader();
}

std::string QvtpServerRequest::getMethod() {
    try {
        return std::string(StartLine(impl_->startLine()).first());
    } catch (Io::QvPipeException&) {
        return METHOD_NONE;
    }
}

std::string QvtpServerRequest::getResource() {
    try {
        std::string resource;
        converter_->decode(std::string(StartLine(impl_->startLine()).second()), resource);
        return resource;
    } catch (Io::QvPipeException&) {
        return {};
    }
}

Version QvtpServerRequest::getQvtpVersion() {
    try {
        return Version(std::string(StartLine(impl_->startLine()).last()));
    } catch (Io::QvPipeException&) {
        return Version::CURRENT_VERSION;
    }
}

QvtpServerRequest::Peer QvtpServerRequest::getPeer() const {
    const auto* const pipe = static_cast<const ServerRequestImpl&>(*impl_).pipe;
    if (pipe == nullptr) return {};
    const PipeControl::Peer peer = PipeControl::peerOf(*pipe);
    return {peer.processId, peer.userId, peer.groupId};
}

}  // namespace Quovane::Qvtp
