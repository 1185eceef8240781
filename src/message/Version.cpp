#include <qvtp/message/Version.h>

#include "common/Early.h"
#include "common/StringUtils.h"
#include "common/Text.h"

#include <string_view>
#include <tuple>

namespace Quovane::Qvtp {

using Quovane::Soa::Internal::Common::StringUtils;

QVTP_EARLY const std::string Version::sQvtpLabel = "QVTP/";

QVTP_EARLY const Version Version::CURRENT_VERSION(Constant(), 1, 0);

Version::Version() : Version(1, 0) {}

Version::Version(int major, int minor) : major_(major), minor_(minor) {}

Version::Version(const Version& other) = default;

Version& Version::operator=(const Version& other) = default;

Version::Version(const std::string& label) : Version() {
    const std::string trimmed = StringUtils::trim(label);
    if (trimmed.size() <= sQvtpLabel.size()) return;
    if (trimmed.compare(0, sQvtpLabel.size(), sQvtpLabel) != 0) return;
    std::string_view rest = trimmed;
    rest.remove_prefix(sQvtpLabel.size());
    if (!StringUtils::scanInteger(rest, major_)) return;
    if (rest.empty() || rest.front() != '.') return;
    rest.remove_prefix(1);
    StringUtils::scanInteger(rest, minor_);
}

int Version::getMajor() const {
    return major_;
}

int Version::getMinor() const {
    return minor_;
}

bool Version::operator==(const Version& other) const {
    return major_ == other.major_ && minor_ == other.minor_;
}

bool Version::operator!=(const Version& other) const {
    return !(*this == other);
}

bool Version::operator<(const Version& other) const {
    return std::tie(major_, minor_) < std::tie(other.major_, other.minor_);
}

bool Version::operator<=(const Version& other) const {
    return !(other < *this);
}

bool Version::operator>(const Version& other) const {
    return other < *this;
}

bool Version::operator>=(const Version& other) const {
    return !(*this < other);
}

std::string Version::toString() const {
    std::string result = sQvtpLabel;
    Internal::Qvtp::appendText(result, major_);
    result += '.';
    Internal::Qvtp::appendText(result, minor_);
    return result;
}

}  // namespace Quovane::Qvtp
