#include "message/HeaderRecord.h"

#include "common/WireSyntax.h"

#include <algorithm>

namespace Quovane::Internal::Qvtp {

namespace {

using namespace WireSyntax;

constexpr std::string_view AFTER_NAME = ": ";

}  // namespace

HeaderRecord::HeaderRecord(std::string_view name, std::string_view valueText, HeaderMemory& memory) {
    keepLine(name, valueText, memory);
    setName(line_.substr(0, name.size()));
    const bool isOneValue = isTrimmed(values_) && values_.find(DELIMITER) == std::string_view::npos;
    if (!isOneValue || name_.size() != name.size() || !Utf8String::isPlain(values_)) line_ = {};
}

HeaderRecord::HeaderRecord(const Plain& plain, HeaderMemory& memory) {
    keepLine(plain.name, plain.value, memory);
    key_ = name_ = line_.substr(0, plain.name.size());
}

HeaderRecord::HeaderRecord(std::string_view keptLine) {
    const std::size_t colon = std::min(keptLine.find(':'), keptLine.size());
    setName(keptLine.substr(0, colon));
    if (colon < keptLine.size()) values_ = keptLine.substr(colon + 1);
}

std::string_view HeaderRecord::keep(std::string_view text, HeaderMemory& memory) {
    char* const copy = static_cast<char*>(memory.take(text.size()));
    text.copy(copy, text.size());
    return {copy, text.size()};
}

/// Composes the line of the header, with its end. The values lie in it.
void HeaderRecord::keepLine(std::string_view name, std::string_view valueText, HeaderMemory& memory) {
    const std::size_t size = name.size() + AFTER_NAME.size() + valueText.size() + LINE_END.size();
    char* const line = static_cast<char*>(memory.take(size));
    char* end = line + name.copy(line, name.size());
    end += AFTER_NAME.copy(end, AFTER_NAME.size());
    values_ = {end, valueText.size()};
    end += valueText.copy(end, valueText.size());
    LINE_END.copy(end, LINE_END.size());
    line_ = {line, size};
}

void HeaderRecord::setName(std::string_view kept) {
    key_ = name_ = kept;
    if (isTrimmed(kept)) return;
    key_ = trimmed(kept);
    name_ = HeaderText::nameOf(kept);
}

std::string_view HeaderRecord::getValue() const {
    std::string_view value;
    for (const HeaderRecord* record = this; record != nullptr && value.empty(); record = record->more_) {
        value = HeaderText::firstValueOf(record->values_);
    }
    return value;
}

void HeaderRecord::append(HeaderRecord& other) {
    line_ = {};
    (last_ != nullptr ? last_->more_ : more_) = &other;
    last_ = &other;
}

std::string HeaderRecord::encodedLine(const Utf8String& converter) const {
    std::string line(name_);
    line += AFTER_NAME;
    bool isFirst = true;
    forEachValue([&](std::string_view value) {
        if (!isFirst) line += DELIMITER;
        converter.appendEncoded(value, line);
        isFirst = false;
    });
    line += LINE_END;
    return line;
}

}  // namespace Quovane::Internal::Qvtp
