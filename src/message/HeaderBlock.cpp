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

constexpr std::size_t USUAL_COUNT = 4;

/// Independent of the locale: bytes above 127 stay as they are.
char upperCase(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

bool continuesValue(std::string_view line) {
    return !line.empty() && BLANKS.find(line.front()) != std::string_view::npos;
}

void logLine(const std::string& line) {
    if (isCommunicationEnabled(CommunicationLevel::INPUT)) {
        logStep([&] { logCommunication(CommunicationLevel::INPUT, line + "\n", false); });
    }
}

/// Orders keys before and after a name, and so finds its place. The keys are made once, the name is compared as it is.
bool isBefore(std::string_view key, std::string_view name) {
    const std::size_t shorter = std::min(key.size(), name.size());
    for (std::size_t i = 0; i < shorter; ++i) {
        const char c = upperCase(name[i]);
        if (key[i] != c) return static_cast<unsigned char>(key[i]) < static_cast<unsigned char>(c);
    }
    return key.size() < name.size();
}

bool isKeyOf(std::string_view key, std::string_view name) {
    const auto isSame = [](char k, char c) { return k == upperCase(c); };
    return std::equal(key.begin(), key.end(), name.begin(), name.end(), isSame);
}

std::string keyOf(std::string_view name) {
    std::string key(name);
    std::transform(key.begin(), key.end(), key.begin(), upperCase);
    return key;
}

}  // namespace

/// Where the header of a name without white space around it stands, or would stand.
HeaderBlock::Entries::iterator HeaderBlock::placeOf(std::string_view trimmed) {
    return std::lower_bound(entries_.begin(), entries_.end(), trimmed,
                            [](const Entry& entry, std::string_view name) { return isBefore(entry.key, name); });
}

const QvtpHeader* HeaderBlock::find(std::string_view name) const {
    const std::string_view trimmed = StringUtils::trim(name, WHITE_SPACE);
    for (const Entry& entry : entries_) {
        if (isKeyOf(entry.key, trimmed)) return &entry.header;
    }
    return nullptr;
}

/// Calls `change` with the header of that name, which is made if there is none. If that throws there is none again.
template <typename Change>
void HeaderBlock::change(std::string_view name, const Change& change) {
    const std::string_view trimmed = StringUtils::trim(name, WHITE_SPACE);
    const auto place = placeOf(trimmed);
    if (place != entries_.end() && isKeyOf(place->key, trimmed)) {
        change(place->header, false);
        return;
    }
    Entry entry{keyOf(trimmed), {}};
    change(entry.header, true);
    if (entries_.empty()) {
        entries_.reserve(USUAL_COUNT);
        entries_.push_back(std::move(entry));
    } else {
        entries_.insert(place, std::move(entry));
    }
}

std::string HeaderBlock::getHeader(std::string_view name) const {
    const QvtpHeader* const header = find(name);
    return header != nullptr ? header->getValue() : std::string();
}

std::vector<std::string> HeaderBlock::getHeaders(std::string_view name) const {
    const QvtpHeader* const header = find(name);
    return header != nullptr ? header->getValues() : std::vector<std::string>();
}

std::vector<std::string> HeaderBlock::getHeaderNames() const {
    std::vector<std::string> names;
    for (const Entry& entry : entries_) names.push_back(entry.header.getName());
    return names;
}

void HeaderBlock::addHeader(std::string_view name, std::string_view value) {
    change(name, [&](QvtpHeader& header, bool isNew) {
        if (isNew) header.setName(name);
        header.addValues(value);
    });
}

void HeaderBlock::setHeader(std::string_view name, std::string_view value) {
    change(name, [&](QvtpHeader& header, bool) {
        header.setName(name);
        header.setValue(value);
    });
}

void HeaderBlock::removeHeader(std::string_view name) {
    const std::string_view trimmed = StringUtils::trim(name, WHITE_SPACE);
    const auto place = placeOf(trimmed);
    if (place != entries_.end() && isKeyOf(place->key, trimmed)) entries_.erase(place);
}

void HeaderBlock::write(std::string& out, const Utf8String& converter) const {
    std::string encoded;
    for (const Entry& entry : entries_) {
        out += entry.header.getName();
        out += ": ";
        const char* separator = "";
        entry.header.forEachValue([&](const std::string& value) {
            converter.encode(value, encoded);
            out += separator;
            out += encoded;
            separator = ",";
        });
        out += LINE_END;
    }
}

void HeaderBlock::read(std::istream& in, const Utf8String& converter) {
    std::string line;
    std::string next;
    StreamUtil::readLine(in, line);
    while (!line.empty()) {
        readHeader(in, line, next, converter);
        line.swap(next);
    }
}

/// Adds the header that begins on `line`. `next` becomes the first line that does not belong to it.
void HeaderBlock::readHeader(std::istream& in, const std::string& line, std::string& next,
                             const Utf8String& converter) {
    logLine(line);
    const std::size_t colon = line.find(':');
    const std::string_view name = std::string_view(line).substr(0, colon);
    std::string value;
    if (colon != std::string::npos) value = StringUtils::trim(std::string_view(line).substr(colon + 1), BLANKS);

    StreamUtil::readLine(in, next);
    while (continuesValue(next)) {
        logLine(next);
        if (!value.empty()) value += ' ';
        value += StringUtils::trim(next);
        StreamUtil::readLine(in, next);
    }
    converter.decode(value, value);
    addHeader(name, value);
}

}  // namespace Quovane::Internal::Qvtp
