#include "message/HeaderBlock.h"

#include "common/StringUtils.h"
#include "common/WireSyntax.h"
#include "logging/Log.h"
#include "message/StreamUtil.h"

#include <algorithm>
#include <string_view>

namespace Quovane::Internal::Qvtp {

using Quovane::Soa::Internal::Common::StringUtils;

namespace {

using namespace WireSyntax;

/// Independent of the locale: bytes above 127 stay as they are.
char upperCase(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool continuesValue(const std::string& line) {
    return !line.empty() && BLANKS.find(line.front()) != std::string_view::npos;
}

void logLine(const std::string& line) {
    if (isCommunicationEnabled(CommunicationLevel::INPUT)) {
        logStep([&] { logCommunication(CommunicationLevel::INPUT, line + "\n", false); });
    }
}

}  // namespace

std::string HeaderBlock::keyOf(const std::string& name) {
    std::string key(StringUtils::trim(name, WHITE_SPACE));
    std::transform(key.begin(), key.end(), key.begin(), upperCase);
    return key;
}

std::string HeaderBlock::getHeader(const std::string& name) const {
    const auto found = headers_.find(keyOf(name));
    return found != headers_.end() ? found->second.getValue() : std::string();
}

std::vector<std::string> HeaderBlock::getHeaders(const std::string& name) const {
    const auto found = headers_.find(keyOf(name));
    return found != headers_.end() ? found->second.getValues() : std::vector<std::string>();
}

std::vector<std::string> HeaderBlock::getHeaderNames() const {
    std::vector<std::string> names;
    for (const auto& [key, header] : headers_) names.push_back(header.getName());
    return names;
}

void HeaderBlock::addHeader(const std::string& name, const std::string& value) {
    const auto [entry, isNew] = headers_.try_emplace(keyOf(name));
    try {
        if (isNew) entry->second.setName(name);
        entry->second.addValues(value);
    } catch (...) {
        if (isNew) headers_.erase(entry);  // there is no header without what was to be in it
        throw;
    }
}

void HeaderBlock::setHeader(const std::string& name, const std::string& value) {
    QvtpHeader& header = headers_[keyOf(name)];
    header.setName(name);
    header.setValue(value);
}

void HeaderBlock::removeHeader(const std::string& name) {
    headers_.erase(keyOf(name));
}

void HeaderBlock::write(std::string& out, const Utf8String& converter) const {
    std::string encoded;
    for (const auto& [key, header] : headers_) {
        out += header.getName();
        out += ": ";
        const char* separator = "";
        for (const std::string& value : header.getValues()) {
            converter.encode(value, encoded);
            out += separator + encoded;
            separator = ",";
        }
        out += LINE_END;
    }
}

void HeaderBlock::read(std::istream& in, const Utf8String& converter) {
    std::string line;
    StreamUtil::readLine(in, line);
    while (!line.empty()) line = readHeader(in, line, converter);
}

/// Adds the header that begins on `line` and returns the first line that does not belong to it.
std::string HeaderBlock::readHeader(std::istream& in, const std::string& line, const Utf8String& converter) {
    logLine(line);
    const std::size_t colon = line.find(':');
    const std::string name = line.substr(0, colon);
    std::string value;
    if (colon != std::string::npos) value = StringUtils::trim(std::string_view(line).substr(colon + 1), BLANKS);

    std::string next;
    StreamUtil::readLine(in, next);
    while (continuesValue(next)) {
        logLine(next);
        if (!value.empty()) value += ' ';
        value += StringUtils::trim(next);
        StreamUtil::readLine(in, next);
    }
    converter.decode(value, value);
    addHeader(name, value);
    return next;
}

}  // namespace Quovane::Internal::Qvtp
