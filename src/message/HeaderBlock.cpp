#include "message/HeaderBlock.h"

#include "common/StringUtils.h"
#include "common/WireSyntax.h"
#include "logging/Log.h"
#include "message/StreamUtil.h"

#include <algorithm>
#include <string_view>
#include <utility>

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

/// Without regard to case.
bool isBefore(std::string_view left, std::string_view right) {
    const std::size_t shorter = std::min(left.size(), right.size());
    for (std::size_t i = 0; i < shorter; ++i) {
        const auto l = static_cast<unsigned char>(upperCase(left[i]));
        const auto r = static_cast<unsigned char>(upperCase(right[i]));
        if (l != r) return l < r;
    }
    return left.size() < right.size();
}

bool isSame(std::string_view left, std::string_view right) {
    if (left.size() != right.size()) return false;
    const auto matches = [](char l, char r) { return upperCase(l) == upperCase(r); };
    return left == right || std::equal(left.begin(), left.end(), right.begin(), matches);
}

}  // namespace

/// Where the header of this key stands, or would stand.
HeaderBlock::Entries::iterator HeaderBlock::placeOf(std::string_view key) {
    return std::find_if(entries_.begin(), entries_.end(),
                        [&](const Entry& entry) { return !isBefore(entry.key, key); });
}

HeaderBlock::Entries::iterator HeaderBlock::find(std::string_view key) {
    return std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) { return isSame(entry.key, key); });
}

const QvtpHeader* HeaderBlock::headerOf(std::string_view name) const {
    const std::string_view key = trimmed(name);
    for (const Entry& entry : entries_) {
        if (isSame(entry.key, key)) return &entry.header;
    }
    return nullptr;
}

std::string HeaderBlock::getHeader(std::string_view name) const {
    const QvtpHeader* const header = headerOf(name);
    return header != nullptr ? header->getValue() : std::string();
}

std::vector<std::string> HeaderBlock::getHeaders(std::string_view name) const {
    const QvtpHeader* const header = headerOf(name);
    return header != nullptr ? header->getValues() : std::vector<std::string>();
}

std::vector<std::string> HeaderBlock::getHeaderNames() const {
    std::vector<std::string> names;
    for (const Entry& entry : entries_) names.push_back(entry.header.getName());
    return names;
}

void HeaderBlock::addHeader(std::string_view name, std::string_view value) {
    const auto entry = find(trimmed(name));
    if (entry == entries_.end()) {
        addEntry(name, value);
    } else {
        entry->header.addValues(value);
    }
}

void HeaderBlock::setHeader(std::string_view name, std::string_view value) {
    const auto entry = find(trimmed(name));
    if (entry == entries_.end()) {
        addEntry(name, value);
        return;
    }
    entry->header.setName(name);
    entry->header.setValue(value);
}

/// For a name that is not there yet.
void HeaderBlock::addEntry(std::string_view name, std::string_view value) {
    if (entries_.empty()) entries_.reserve(USUAL_COUNT);
    Entry entry{std::string(trimmed(name)), QvtpHeader(name)};
    entry.header.addValues(value);
    const auto place = placeOf(entry.key);
    entries_.insert(place, std::move(entry));
}

void HeaderBlock::removeHeader(std::string_view name) {
    const auto entry = find(trimmed(name));
    if (entry != entries_.end()) entries_.erase(entry);
}

void HeaderBlock::write(std::string& out, const Utf8String& converter) const {
    for (const Entry& entry : entries_) {
        out += entry.header.getName();
        out += ": ";
        bool isFirst = true;
        entry.header.forEachValue([&](const std::string& value) {
            if (!isFirst) out += DELIMITER;
            converter.appendEncoded(value, out);
            isFirst = false;
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
