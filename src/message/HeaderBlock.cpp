#include "message/HeaderBlock.h"

#include "common/StringUtils.h"
#include "common/WireSyntax.h"
#include "logging/Log.h"
#include "message/StreamUtil.h"

#include <algorithm>
#include <new>
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

void logLine(std::string_view line) {
    if (isCommunicationEnabled(CommunicationLevel::INPUT)) {
        logStep([&] { logCommunication(CommunicationLevel::INPUT, text(line, "\n"), false); });
    }
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
    const std::size_t shorter = std::min(left.size(), right.size());
    if (left == right) return 0;
    for (std::size_t i = 0; i < shorter; ++i) {
        if (left[i] == right[i]) continue;
        const int difference =
            static_cast<unsigned char>(upperCase(left[i])) - static_cast<unsigned char>(upperCase(right[i]));
        if (difference != 0) return difference;
    }
    return left.size() < right.size() ? -1 : static_cast<int>(left.size() > right.size());
}

}  // namespace

HeaderBlock::HeaderBlock() {
    records_.reserve(USUAL_COUNT);
}

/// Of the header with this key, or where it would be.
HeaderBlock::Place HeaderBlock::placeOf(std::string_view key) {
    for (auto record = records_.begin(); record != records_.end(); ++record) {
        const int difference = compare(record->getKey(), key);
        if (difference >= 0) return {record, difference == 0};
    }
    return {records_.end(), false};
}

const HeaderRecord* HeaderBlock::recordOf(std::string_view name) const {
    const std::string_view key = trimmed(name);
    const auto isIt = [&](const HeaderRecord& record) {
        return record.getKey().size() == key.size() && compare(record.getKey(), key) == 0;
    };
    const auto record = std::find_if(records_.begin(), records_.end(), isIt);
    return record != records_.end() ? &*record : nullptr;
}

/// Brings headers as they were read into order and joins those of one name. A peer may send very many.
void HeaderBlock::sortOut() {
    const auto isInOrder = [](const HeaderRecord& left, const HeaderRecord& right) {
        return compare(left.getKey(), right.getKey()) < 0;
    };
    const auto isOutOfOrder = [&](const HeaderRecord& left, const HeaderRecord& right) {
        return !isInOrder(left, right);
    };
    if (std::adjacent_find(records_.begin(), records_.end(), isOutOfOrder) == records_.end()) return;
    std::stable_sort(records_.begin(), records_.end(), isInOrder);
    try {
        joinThoseOfOneName();
    } catch (const std::bad_alloc&) {
        records_.clear();  // half of it would be in no order
        throw;
    }
}

void HeaderBlock::joinThoseOfOneName() {
    std::size_t last = 0;
    for (std::size_t i = 1; i < records_.size(); ++i) {
        if (compare(records_[last].getKey(), records_[i].getKey()) == 0) {
            records_[i].forEachValue([&](std::string_view value) { records_[last].addValues(value, memory_); });
        } else if (++last != i) {
            records_[last] = records_[i];
        }
    }
    records_.resize(last + 1);
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
    if (place.isTaken) {
        place.record->addValues(value, memory_);
    } else {
        records_.insert(place.record, HeaderRecord(name, value, memory_));
    }
}

bool HeaderBlock::addPlainHeader(std::string_view name, std::string_view value) {
    const Place place = placeOf(name);
    if (place.isTaken) {
        place.record->addValues(value, memory_);
    } else {
        records_.insert(place.record, HeaderRecord::ofPlain(name, value, memory_));
    }
    return !place.isTaken;
}

void HeaderBlock::setHeader(std::string_view name, std::string_view value) {
    const Place place = placeOf(trimmed(name));
    if (place.isTaken) {
        *place.record = HeaderRecord(name, value, memory_);
    } else {
        records_.insert(place.record, HeaderRecord(name, value, memory_));
    }
}

void HeaderBlock::removeHeader(std::string_view name) {
    const Place place = placeOf(trimmed(name));
    if (place.isTaken) records_.erase(place.record);
}

void HeaderBlock::write(std::string& out, const Utf8String& converter) const {
    for (const HeaderRecord& record : records_) record.write(out, converter);
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
        sortOutWhatThereIs();
        throw;
    }
    sortOut();
}

/// The usual way, for what plainBlockOf() gives.
void HeaderBlock::readPlainBlock(std::string_view block) {
    std::string_view rest = HeaderRecord::keep(block, memory_);
    for (auto line = takeLine(rest); line && !line->empty(); line = takeLine(rest)) {
        logLine(*line);
        records_.push_back(HeaderRecord::ofLine(*line, memory_));
    }
}

void HeaderBlock::readLines(std::istream& in, const Utf8String& converter) {
    std::size_t complete = records_.size();
    try {
        std::string room;
        for (;;) {
            const std::string_view line = StreamUtil::readLine(in, room);
            complete = records_.size();  // without the line after it a header does not count
            if (line.empty()) break;
            readHeader(in, line, converter);
        }
    } catch (...) {
        records_.resize(complete);
        throw;
    }
}

/// After a failure, which matters more than one of its own.
void HeaderBlock::sortOutWhatThereIs() noexcept {
    try {
        sortOut();
    } catch (const std::bad_alloc&) {  // then there are none
    }
}

/// Adds the header that begins on `line`, with the lines that continue it. `line` is as StreamUtil::readLine gave it.
void HeaderBlock::readHeader(std::istream& in, std::string_view line, const Utf8String& converter) {
    logLine(line);
    const std::size_t colon = std::min(line.find(':'), line.size());
    const std::string_view first = line.substr(std::min(colon + 1, line.size()));
    if (!isContinued(in) && Utf8String::isAscii(first)) {
        records_.push_back(HeaderRecord::ofLine(HeaderRecord::keep(line, memory_), memory_));
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
    records_.emplace_back(name, value, memory_);
}

}  // namespace Quovane::Internal::Qvtp
