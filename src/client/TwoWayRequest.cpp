#include <qvtp/client/TwoWayRequest.h>

#include <qvtp/client/QvtpResponse.h>
#include "client/AbstractQvtpRequestImpl.h"

namespace Quovane::Qvtp {

using Internal::Qvtp::AbstractQvtpRequestImpl;

TwoWayRequest::TwoWayRequest(const std::string& method, const std::string& resource, QvtpClient* client,
                             const std::string& pipeName)
    : impl_(new AbstractQvtpRequestImpl(method, resource, client, pipeName, AbstractQvtpRequestImpl::TWO_WAY)) {}

TwoWayRequest::~TwoWayRequest() noexcept(false) {
    delete impl_;
}

std::string TwoWayRequest::getStartLine() {
    return impl_->getStartLine();
}

void TwoWayRequest::addHeader(const std::string& name, const std::string& value) {
    impl_->addHeader(name, value);
}

void TwoWayRequest::setHeader(const std::string& name, const std::string& value) {
    impl_->setHeader(name, value);
}

void TwoWayRequest::removeHeader(const std::string& name) {
    impl_->removeHeader(name);
}

void TwoWayRequest::setBody(const char* data, size_t size) {
    impl_->setBody(data, size);
}

bool TwoWayRequest::isCommitted() const {
    return impl_->isCommitted();
}

std::string TwoWayRequest::getMethod() const {
    return impl_->getMethod();
}

void TwoWayRequest::setResource(const std::string& resource) {
    impl_->setResource(resource);
}

std::string TwoWayRequest::getResource() const {
    return impl_->getResource();
}

void TwoWayRequest::setBodyStream(std::istream* stream) {
    impl_->setBodyStream(stream);
}

QvtpResponse* TwoWayRequest::execute() {
    return impl_->receive(impl_->execute()).release();
}

}  // namespace Quovane::Qvtp
