#include <qvtp/client/QvtpClient.h>

#include "client/DefaultConnectionManager.h"
#include "logging/Log.h"

namespace Quovane::Qvtp {

using namespace Quovane::Internal::Qvtp;

struct QvtpClient::IntegerOptions {
    /// Where an option is kept; null for one that is not an integer.
    static std::atomic<int> QvtpClient::*fieldOf(ClientOptions option) {
        switch (option) {
            case CONNECTION_TIMEOUT:
                return &QvtpClient::connectionTimeout_;
            case IDLE_TIMEOUT:
                return &QvtpClient::idleTimeout_;
            case BUFFER_SIZE:
                return &QvtpClient::bufferSize_;
            default:
                return nullptr;
        }
    }
};

QvtpClient::QvtpClient() = default;

QvtpClient::QvtpClient(QvtpConnectionManager* manager) : manager_(manager) {}

QvtpClient::~QvtpClient() {
    if (ownsManager_) delete manager_.load();
    manager_ = nullptr;
}

QvtpConnectionManager* QvtpClient::getManager() {
    if (QvtpConnectionManager* const manager = manager_) return manager;  // without the lock: every request asks
    std::lock_guard<std::mutex> guard(mutex_);
    if (manager_ == nullptr) {
        ownsManager_ = true;
        manager_ = new DefaultConnectionManager(connectionTimeout_, idleTimeout_);
    }
    return manager_;
}

Version QvtpClient::getQvtpVersion() const {
    return Version::CURRENT_VERSION;
}

void QvtpClient::setOption(ClientOptions option, const std::string& value) {
    if (option != USER_AGENT) {
        logError("Attempt to set an invalid string option");
        return;
    }
    std::lock_guard<std::mutex> guard(mutex_);
    userAgent_ = value;
}

void QvtpClient::setOption(ClientOptions option, int value) {
    if (const auto field = IntegerOptions::fieldOf(option)) {
        this->*field = value;
        return;
    }
    // Only the refusal is logged at DEBUG; an option that is taken leaves no line.
    logDebug("Setting QvtpClient option unrecognized.");
    logError("Attempt to set an invalid integer option");
}

std::string QvtpClient::getStringOption(ClientOptions option) const {
    if (option != USER_AGENT) {
        logError("Attempt to retrieve an invalid string option");
        return {};
    }
    std::lock_guard<std::mutex> guard(mutex_);
    return userAgent_;
}

int QvtpClient::getIntegerOption(ClientOptions option) const {
    if (const auto field = IntegerOptions::fieldOf(option)) return this->*field;
    logError("Attempt to retrieve an invalid integer option");
    return -1;
}

void QvtpClient::setResponseTimeout(int milliseconds) {
    responseTimeout_ = milliseconds;
}

int QvtpClient::getResponseTimeout() const {
    return responseTimeout_;
}

}  // namespace Quovane::Qvtp
