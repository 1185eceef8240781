#include <qvtp/client/OneWayRequest.h>

#include <qvtp/client/QvtpResponse.h>
#include "client/AbstractQvtpRequestImpl.h"

namespace Quovane::Qvtp {

using Internal::Qvtp::AbstractQvtpRequestImpl;

OneWayRequest::OneWayRequest(const std::string& method, const std::string& resource, QvtpClient* client,
                             const std::string& pipeName)
    : impl_(new AbstractQvtpRequestImpl(method, resource, client, pipeName, AbstractQvtpRequestImpl::ONE_WAY)) {}

OneWayRequest::~OneWayRequest() noexcept(false) {
    delete impl_;
}

std::string OneWayRequest::getStartLine() {
    return impl_->getStartLine();
}

void OneWayRequest::addHeader(const std::string& name, const std::string& value) {
    impl_->addHeader(name, value);
}

void OneWayRequest::setHeader(const std::string& name, const std::string& value) {
    impl_->setHeader(name, value);
}

void OneWayRequest::removeHeader(const std::string& name) {
    impl_->removeHeader(name);
}

void OneWayRequest::setBody(const char* data, size_t size) {
    impl_->setBody(data, size);
}

bool OneWayRequest::isCommitted() const {
    return impl_->isCommitted();
}

std::string OneWayRequest::getMethod() const {
    return impl_->getMethod();
}

void OneWayRequest::setResource(const std::string& resource) {
    impl_->setResource(resource);
}

std::string OneWayRequest::getResource() const {
    return impl_->getResource();
}

void OneWayRequest::setBodyStream(std::istream* stream) {
    impl_->setBodyStream(stream);
}

void OneWayRequest::execute() {
    impl_->execute();  // a response, if there were one, goes at once
}

}  // namespace Quovane::Qvtp
