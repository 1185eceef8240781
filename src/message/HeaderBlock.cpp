#include "message/HeaderBlock.h"

#include "common/StringUtils.h"
#include "common/WireSyntax.h"
#include "logging/Log.h"
#include "message/StreamUtil.h"

#include <algorithm>
#include <new>
#include <string_view>
#include <utility>

namespace Quovane::Internal::Qvtp {

using Quovane::Soa::Internal::Common::StringUtils;

namespace {

using namespace WireSyntax;

/// Independent of the locale: bytes above 127 stay as they are.
char upperCase(char c) {
    return c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c;
}

/// Whether the next line belongs to the one before.
bool isContinued(std::istream& in) {
    const int next = StreamUtil::peek(in);
    return next != std::char_traits<char>::eof() && BLANKS.find(static_cast<char>(next)) != std::string_view::npos;
}

void logLine(std::string_view line) {
    if (isCommunicationEnabled(CommunicationLevel::INPUT)) {
        logStep([&] { logCommunication(CommunicationLevel::INPUT, text(line, "\n"), false); });
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

bool isAscii(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
}

}  // namespace

HeaderBlock::HeaderBlock() {
    entries_.reserve(USUAL_COUNT);
}

HeaderBlock::Entry::Entry(std::string_view name, std::string_view value) : header(name) {
    header.addValues(value);
    // Names with a vertical tab or a form feed at their ends.
    if (header.getName().size() != trimmed(name).size()) oddKey = std::make_unique<std::string>(trimmed(name));
}

HeaderBlock::Entries::iterator HeaderBlock::find(std::string_view name) {
    const std::string_view key = trimmed(name);
    return std::find_if(entries_.begin(), entries_.end(), [&](const Entry& entry) { return isSame(entry.key(), key); });
}

const QvtpHeader* HeaderBlock::headerOf(std::string_view name) const {
    const std::string_view key = trimmed(name);
    for (const Entry& entry : entries_) {
        if (isSame(entry.key(), key)) return &entry.header;
    }
    return nullptr;
}

/// A name that is not there yet.
void HeaderBlock::insert(std::string_view name, std::string_view value) {
    const Entry& added = entries_.emplace_back(name, value);
    const auto end = entries_.end() - 1;
    const auto place =
        std::find_if(entries_.begin(), end, [&](const Entry& other) { return isBefore(added.key(), other.key()); });
    std::rotate(place, end, entries_.end());
}

/// Brings entries as they were read into order and joins those of one name. A peer may send very many.
void HeaderBlock::sortOut() {
    const auto isInOrder = [](const Entry& left, const Entry& right) { return isBefore(left.key(), right.key()); };
    const auto isOutOfOrder = [&](const Entry& left, const Entry& right) { return !isInOrder(left, right); };
    if (std::adjacent_find(entries_.begin(), entries_.end(), isOutOfOrder) == entries_.end()) return;
    std::stable_sort(entries_.begin(), entries_.end(), isInOrder);
    std::size_t last = 0;
    for (std::size_t i = 1; i < entries_.size(); ++i) {
        if (isSame(entries_[last].key(), entries_[i].key())) {
            entries_[i].header.forEachValue([&](const std::string& value) { entries_[last].header.addValues(value); });
        } else if (++last != i) {
            entries_[last] = std::move(entries_[i]);
        }
    }
    entries_.resize(last + 1);
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
    const auto entry = find(name);
    if (entry != entries_.end()) {
        entry->header.addValues(value);
    } else {
        insert(name, value);
    }
}

void HeaderBlock::setHeader(std::string_view name, std::string_view value) {
    const auto entry = find(name);
    if (entry != entries_.end()) {
        *entry = Entry(name, value);
    } else {
        insert(name, value);
    }
}

void HeaderBlock::removeHeader(std::string_view name) {
    const auto entry = find(name);
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
    std::size_t complete = entries_.size();
    try {
        std::string room;
        for (;;) {
            const std::string_view line = StreamUtil::readLine(in, room);
            complete = entries_.size();  // without the line after it a header does not count
            if (line.empty()) break;
            readHeader(in, line, converter);
        }
    } catch (...) {
        entries_.resize(complete);
        sortOutWhatThereIs();
        throw;
    }
    sortOut();
}

/// After a failure, which matters more than one of its own.
void HeaderBlock::sortOutWhatThereIs() noexcept {
    try {
        sortOut();
    } catch (const std::bad_alloc&) {
        entries_.clear();
    }
}

/// Adds the header that begins on `line`, with the lines that continue it. `line` is as StreamUtil::readLine gave it.
void HeaderBlock::readHeader(std::istream& in, std::string_view line, const Utf8String& converter) {
    logLine(line);
    const std::size_t colon = std::min(line.find(':'), line.size());
    const std::string_view first = line.substr(std::min(colon + 1, line.size()));
    if (!isContinued(in) && isAscii(first)) {
        entries_.emplace_back(line.substr(0, colon), first);
        return;
    }
    const std::string name(line.substr(0, colon));  // the next line may come to where this one is
    std::string value(StringUtils::trim(first, BLANKS));
    std::string room;
    while (isContinued(in)) {
        const std::string_view next = StreamUtil::readLine(in, room);
        logLine(next);
        if (!value.empty()) value += ' ';
        value += StringUtils::trim(next);
    }
    converter.decode(value, value);
    entries_.emplace_back(name, value);
}

}  // namespace Quovane::Internal::Qvtp
