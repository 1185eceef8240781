#pragma once

#include "common/Utf8String.h"
#include "message/HeaderMemory.h"
#include "message/HeaderText.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace Quovane::Internal::Qvtp {

/// One header as a block holds it: what a QvtpHeader has, in texts that lie in the block's memory and end with it. One
/// whose values came apart is a chain of records.
class HeaderRecord {
  public:
    using Utf8String = Quovane::Soa::Common::Xml::Utf8String;

    /// A name and a single value that are plain, without commas and without white space at their ends.
    struct Plain {
        std::string_view name;
        std::string_view value;
    };

    /// Copies the texts.
    HeaderRecord(std::string_view name, std::string_view valueText, HeaderMemory& memory);
    /// Copies the texts.
    HeaderRecord(const Plain& plain, HeaderMemory& memory);
    /// From a line of a head, without its end, which lies in the memory already. The name ends at the first colon, the
    /// values begin after it.
    explicit HeaderRecord(std::string_view keptLine);

    /// Copies a text into the memory.
    static std::string_view keep(std::string_view text, HeaderMemory& memory);

    /// What the name is compared by, without regard to case.
    std::string_view getKey() const { return key_; }
    std::string_view getName() const { return name_; }
    /// The first value, or an empty text.
    std::string_view getValue() const;

    /// Calls `action` with each value in turn.
    template <typename Action>
    void forEachValue(const Action& action) const {
        for (const HeaderRecord* record = this; record != nullptr; record = record->more_) {
            HeaderText::forEachValueOf(record->values_, action);
        }
    }

    /// Adds the values of another record, which is no chain and has to last as long as this one does.
    void append(HeaderRecord& other);

    /// Appends the line of the header, with its end.
    template <typename Text>
    void write(Text& out, const Utf8String& converter) const {
        if (line_.empty()) {
            out += encodedLine(converter);
        } else {
            out += line_;
        }
    }

  private:
    std::string encodedLine(const Utf8String& converter) const;
    void keepLine(std::string_view name, std::string_view valueText, HeaderMemory& memory);
    void setName(std::string_view kept);

    std::string_view key_;
    std::string_view name_;
    std::string_view values_;       // as they came, with commas between them
    std::string_view line_;         // as it is written, if it lies there in one piece
    HeaderRecord* more_ = nullptr;  // the next one of the chain
    HeaderRecord* last_ = nullptr;  // of the chain, if there are more
};

}  // namespace Quovane::Internal::Qvtp
