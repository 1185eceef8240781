#include "message/HeaderRecord.h"

#include "common/WireSyntax.h"
#include "message/HeaderText.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Quovane::Internal::Qvtp {

namespace {

using namespace WireSyntax;

constexpr std::string_view AFTER_NAME = ": ";

char* room(std::size_t size, HeaderRecord::Memory& memory) {
    return static_cast<char*>(memory.allocate(size, 1));
}

/// The line of a header, with its end.
std::string_view keepLine(std::string_view name, std::string_view valueText, HeaderRecord::Memory& memory) {
    const std::size_t size = name.size() + AFTER_NAME.size() + valueText.size() + LINE_END.size();
    char* const line = room(size, memory);
    char* end = line + name.copy(line, name.size());
    end += AFTER_NAME.copy(end, AFTER_NAME.size());
    end += valueText.copy(end, valueText.size());
    LINE_END.copy(end, LINE_END.size());
    return {line, size};
}

}  // namespace

HeaderRecord::HeaderRecord(std::string_view name, std::string_view valueText, Memory& memory) {
    whole_ = keepLine(name, valueText, memory);
    setName(whole_.substr(0, name.size()));
    first_.text = whole_.substr(name.size() + AFTER_NAME.size(), valueText.size());
    const bool isOneValue = isTrimmed(first_.text) && first_.text.find(DELIMITER) == std::string_view::npos;
    if (isOneValue && name_.size() == name.size() && Utf8String::isPlain(first_.text)) return;
    whole_ = {};
    splitValues(std::exchange(first_.text, {}), memory);
}

HeaderRecord HeaderRecord::ofLine(std::string_view kept, Memory& memory) {
    const std::size_t colon = std::min(kept.find(':'), kept.size());
    HeaderRecord record;
    record.setName(kept.substr(0, colon));
    if (colon < kept.size()) record.splitValues(kept.substr(colon + 1), memory);
    return record;
}

HeaderRecord HeaderRecord::ofPlain(std::string_view name, std::string_view value, Memory& memory) {
    HeaderRecord record;
    record.whole_ = keepLine(name, value, memory);
    record.key_ = record.name_ = record.whole_.substr(0, name.size());
    record.first_.text = record.whole_.substr(name.size() + AFTER_NAME.size(), value.size());
    return record;
}

std::string_view HeaderRecord::keep(std::string_view text, Memory& memory) {
    if (text.empty()) return {};
    char* const copy = room(text.size(), memory);
    text.copy(copy, text.size());
    return {copy, text.size()};
}

void HeaderRecord::setName(std::string_view kept) {
    key_ = name_ = kept;
    if (isTrimmed(kept)) return;
    key_ = trimmed(kept);
    name_ = HeaderText::nameOf(kept);
}

void HeaderRecord::addValues(std::string_view valueText, Memory& memory) {
    whole_ = {};
    splitValues(keep(valueText, memory), memory);
}

void HeaderRecord::splitValues(std::string_view kept, Memory& memory) {
    HeaderText::forEachValueOf(kept, [&](std::string_view value) { addValue(value, memory); });
}

void HeaderRecord::addValue(std::string_view text, Memory& memory) {
    if (!hasValue()) {
        first_.text = text;
        return;
    }
    Value* const added = ::new (memory.allocate(sizeof(Value), alignof(Value))) Value{text, nullptr};
    (last_ != nullptr ? last_->next : first_.next) = added;
    last_ = added;
}

void HeaderRecord::write(std::string& out, const Utf8String& converter) const {
    if (!whole_.empty()) {
        out += whole_;
        return;
    }
    out += name_;
    out += AFTER_NAME;
    bool isFirst = true;
    forEachValue([&](std::string_view value) {
        if (!isFirst) out += DELIMITER;
        converter.appendEncoded(value, out);
        isFirst = false;
    });
    out += LINE_END;
}

}  // namespace Quovane::Internal::Qvtp
