#include <qvtp/message/Version.h>

#include "common/StringUtils.h"
#include "common/Utf8String.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using Quovane::Qvtp::Version;
    using Quovane::Soa::Common::Xml::Utf8String;
    using Quovane::Soa::Internal::Common::StringUtils;
    const std::string text(data, data + size);

    const Version version(text);
    if (Version(version.toString()) != version) std::abort();
    const int integer = StringUtils::toInteger(text);
    if (StringUtils::toInteger(std::to_string(integer)) != integer) std::abort();
    std::uint32_t hexadecimal = 0;
    StringUtils::scanHexadecimal(text, hexadecimal);
    if (StringUtils::trim(StringUtils::trim(text)) != StringUtils::trim(text)) std::abort();

    std::string once, twice;
    Utf8String::decode(text, once);
    Utf8String::decode(once, twice);
    if (once != twice || once.size() < text.size()) std::abort();
    Utf8String::encode(text, once);
    if (once.find_first_of(std::string("\r\n\0", 3)) != std::string::npos) std::abort();
    return 0;
}
