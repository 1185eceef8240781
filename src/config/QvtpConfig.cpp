#include <qvtp/config/QvtpConfig.h>

#include "config/ConfigurationDocument.h"
#include "config/ParserMemory.h"

namespace Quovane::Qvtp {

struct QvtpConfig::Document : Internal::Qvtp::ConfigurationDocument {};

QvtpConfig& QvtpConfig::getInstance() {
    static QvtpConfig instance;
    return instance;
}

QvtpConfig::QvtpConfig() : document_(std::make_unique<Document>()) {
    // An initialisation that fails half-way can neither be used nor taken back: the parser library is not made for it.
    const Internal::Qvtp::ParserMemory reserve;
    loadConfigFile();
}

QvtpConfig::~QvtpConfig() = default;

void QvtpConfig::loadConfigFile() {
    document_->load();
}

void QvtpConfig::setQvtpClientOptions(QvtpClient& client, const std::string& function, const std::string& component) {
    document_->apply(client, function, component);
}

void QvtpConfig::setQvtpServerOptions(QvtpServer& server, const std::string& function, const std::string& component) {
    document_->apply(server, function, component);
}

}  // namespace Quovane::Qvtp
