#include <qvtp/client/QvtpConnectionManager.h>

namespace Quovane::Qvtp {

QvtpConnectionManager::QvtpConnectionManager() = default;

QvtpConnectionManager::~QvtpConnectionManager() = default;

}  // namespace Quovane::Qvtp
