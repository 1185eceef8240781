#include <qvtp/server/QvtpHandler.h>

namespace Quovane::Qvtp {

QvtpHandler::QvtpHandler() = default;

QvtpHandler::~QvtpHandler() = default;

}  // namespace Quovane::Qvtp
