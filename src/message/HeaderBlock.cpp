#include "message/HeaderBlock.h"

#include "common/StringUtils.h"
#include "common/WireSyntax.h"
#include "logging/Log.h"
#include "message/StreamUtil.h"

#include <algorithm>
#include <iterator>
#include <string_view>

namespace Quovane::Internal::Qvtp {

using Quovane::Soa::Internal::Common::StringUtils;

namespace {

using namespace WireSyntax;

/// Whether the next line belongs to the one before.
bool isContinued(std::istream& in) {
    const int next = StreamUtil::peek(in);
    return next != std::char_traits<char>::eof() && isBlank(static_cast<char>(next));
}

void recordLine(std::string_view line) {
    logStep([&] { logCommunication(CommunicationLevel::INPUT, text(line, "\n"), false); });
}

inline void logLine(std::string_view line) {
    if (isCommunicationEnabled(CommunicationLevel::INPUT)) recordLine(line);
}

/// The lines of a block with the empty one after them, if all of them are among these bytes, are ASCII, and none
/// continues the one before. Otherwise nothing.
std::string_view plainBlockOf(std::string_view bytes) {
    std::size_t next = 0;
    for (bool isLast = false; !isLast;) {
        const std::size_t end = bytes.find('\n', next);
        if (end == std::string_view::npos) return {};
        isLast = end == next || (end == next + 1 && bytes[next] == '\r');
        next = end + 1;
        if (!isLast && next < bytes.size() && isBlank(bytes[next])) return {};
    }
    const std::string_view block = bytes.substr(0, next);
    return HeaderBlock::Utf8String::isAscii(block) ? block : std::string_view();
}

/// By their bytes without regard to case: less than 0, 0 or more, as memcmp.
int compare(std::string_view left, std::string_view right) {
    if (left == right) return 0;
    const std::size_t shorter = std::min(left.size(), right.size());
    for (std::size_t i = 0; i < shorter; ++i) {
        const int difference =
            static_cast<unsigned char>(upperCase(left[i])) - static_cast<unsigned char>(upperCase(right[i]));
        if (difference != 0) return difference;
    }
    return left.size() < right.size() ? -1 : static_cast<int>(left.size() > right.size());
}

bool isBefore(const HeaderRecord& left, const HeaderRecord& right) {
    return compare(left.getKey(), right.getKey()) < 0;
}

}  // namespace

HeaderBlock::Place HeaderBlock::placeOf(std::string_view key) {
    auto before = records_.before_begin();
    for (auto record = records_.begin(); record != records_.end(); before = record++) {
        const int difference = compare(record->getKey(), key);
        if (difference >= 0) return {before, difference == 0 ? record : records_.end()};
    }
    return {before, records_.end()};
}

const HeaderRecord* HeaderBlock::recordOf(std::string_view name) const {
    const std::string_view key = trimmed(name);
    const auto isIt = [&](const HeaderRecord& record) {
        return record.getKey().size() == key.size() && compare(record.getKey(), key) == 0;
    };
    const auto record = std::find_if(records_.begin(), records_.end(), isIt);
    return record != records_.end() ? &*record : nullptr;
}

/// What more headers go after.
HeaderBlock::Records::iterator HeaderBlock::lastRecord() {
    auto last = records_.before_begin();
    for (auto record = records_.begin(); record != records_.end(); ++record) last = record;
    return last;
}

/// And each name is there once.
bool HeaderBlock::isInOrder() const {
    const auto isOutOfOrder = [](const HeaderRecord& left, const HeaderRecord& right) {
        return !isBefore(left, right);
    };
    return std::adjacent_find(records_.begin(), records_.end(), isOutOfOrder) == records_.end();
}

/// Brings headers as they were read into order and joins those of one name. A peer may send very many.
void HeaderBlock::sortOut() noexcept {
    if (isInOrder()) return;
    records_.sort(isBefore);
    for (auto record = records_.begin(); record != records_.end();) {
        const auto next = std::next(record);
        if (next != records_.end() && !isBefore(*record, *next)) {
            joined_.splice_after(joined_.before_begin(), records_, record);
            record->append(*next);
        } else {
            record = next;
        }
    }
}

std::string_view HeaderBlock::firstValue(std::string_view name) const {
    const HeaderRecord* const record = recordOf(name);
    return record != nullptr ? record->getValue() : std::string_view();
}

std::vector<std::string> HeaderBlock::getHeaders(std::string_view name) const {
    std::vector<std::string> values;
    const HeaderRecord* const record = recordOf(name);
    if (record != nullptr) record->forEachValue([&](std::string_view value) { values.emplace_back(value); });
    return values;
}

std::vector<std::string> HeaderBlock::getHeaderNames() const {
    std::vector<std::string> names;
    for (const HeaderRecord& record : records_) names.emplace_back(record.getName());
    return names;
}

void HeaderBlock::addHeader(std::string_view name, std::string_view value) {
    const Place place = placeOf(trimmed(name));
    if (place.record == records_.end()) {
        records_.emplace_after(place.before, name, value, memory_);
    } else {
        place.record->append(joined_.emplace_front(name, value, memory_));
    }
}

bool HeaderBlock::addPlainHeader(std::string_view name, std::string_view value) {
    const Place place = placeOf(name);
    const bool isNew = place.record == records_.end();
    if (isNew) {
        records_.emplace_after(place.before, HeaderRecord::Plain{name, value}, memory_);
    } else {
        place.record->append(joined_.emplace_front(HeaderRecord::Plain{name, value}, memory_));
    }
    return isNew;
}

void HeaderBlock::setHeader(std::string_view name, std::string_view value) {
    const Place place = placeOf(trimmed(name));
    if (place.record != records_.end()) {
        *place.record = HeaderRecord(name, value, memory_);
    } else {
        records_.emplace_after(place.before, name, value, memory_);
    }
}

void HeaderBlock::removeHeader(std::string_view name) {
    const Place place = placeOf(trimmed(name));
    if (place.record != records_.end()) records_.erase_after(place.before);
}

void HeaderBlock::read(std::istream& in, const Utf8String& converter) {
    try {
        const std::string_view block = plainBlockOf(StreamUtil::unread(in));
        if (block.empty()) {
            readLines(in, converter);
        } else {
            StreamUtil::skip(in, block.size());
            readPlainBlock(block);
        }
    } catch (...) {
        sortOut();
        throw;
    }
    sortOut();
}

/// The usual way, for what plainBlockOf() gives.
void HeaderBlock::readPlainBlock(std::string_view block) {
    std::string_view rest = keep(block);
    auto last = lastRecord();
    for (auto line = takeLine(rest); line && !line->empty(); line = takeLine(rest)) {
        logLine(*line);
        last = records_.emplace_after(last, *line);
    }
}

void HeaderBlock::readLines(std::istream& in, const Utf8String& converter) {
    auto complete = lastRecord();
    try {
        std::string room;
        for (auto last = complete;;) {
            const std::string_view line = StreamUtil::readLine(in, room);
            complete = last;  // without the line after it a header does not count
            if (line.empty()) break;
            last = readHeader(last, in, line, converter);
        }
    } catch (...) {
        records_.erase_after(complete, records_.end());
        throw;
    }
}

/// Adds the header that begins on `line`, with the lines that continue it, after `last`, and gives its place. `line` is
/// as StreamUtil::readLine gave it.
HeaderBlock::Records::iterator HeaderBlock::readHeader(Records::iterator last, std::istream& in, std::string_view line,
                                                       const Utf8String& converter) {
    logLine(line);
    const std::size_t colon = std::min(line.find(':'), line.size());
    const std::string_view first = line.substr(std::min(colon + 1, line.size()));
    if (!isContinued(in) && Utf8String::isAscii(first)) {
        return records_.emplace_after(last, keep(line));
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
    return records_.emplace_after(last, name, value, memory_);
}

}  // namespace Quovane::Internal::Qvtp
