#pragma once

#include "common/Utf8String.h"

#include <cstddef>
#include <memory_resource>
#include <string>
#include <string_view>

namespace Quovane::Internal::Qvtp {

/// One header as a block holds it: what a QvtpHeader has, in texts that lie in the block's memory and end with it. A
/// copy shares them.
class HeaderRecord {
  public:
    using Memory = std::pmr::memory_resource;
    using Utf8String = Quovane::Soa::Common::Xml::Utf8String;

    HeaderRecord() = default;
    /// Copies the texts.
    HeaderRecord(std::string_view name, std::string_view valueText, Memory& memory);
    /// From a line of a head, without its end, which lies in the memory already. The name ends at the first colon, the
    /// values begin after it.
    static HeaderRecord ofLine(std::string_view kept, Memory& memory);
    /// With a single value. Both texts are plain, without commas and without white space at their ends. Copies
    /// them.
    static HeaderRecord ofPlain(std::string_view name, std::string_view value, Memory& memory);
    /// Copies a text into the memory.
    static std::string_view keep(std::string_view text, Memory& memory);

    /// What the name is compared by, without regard to case.
    std::string_view getKey() const { return key_; }
    std::string_view getName() const { return name_; }
    /// The first value, or an empty text.
    std::string_view getValue() const { return first_.text; }

    /// Calls `action` with each value in turn.
    template <typename Action>
    void forEachValue(const Action& action) const {
        if (!hasValue()) return;
        for (const Value* value = &first_; value != nullptr; value = value->next) action(value->text);
    }

    /// As QvtpHeader::addValues. Copies the text.
    void addValues(std::string_view valueText, Memory& memory);

    /// Appends the line of the header, with its end.
    void write(std::string& out, const Utf8String& converter) const;

  private:
    struct Value {
        std::string_view text;
        Value* next = nullptr;
    };

    bool hasValue() const { return !first_.text.empty(); }  // no value is empty
    void setName(std::string_view kept);
    void splitValues(std::string_view kept, Memory& memory);
    void addValue(std::string_view text, Memory& memory);

    std::string_view key_;
    std::string_view name_;
    Value first_;             // most headers have one value
    Value* last_ = nullptr;   // of the others
    std::string_view whole_;  // the line as it is written, if it lies there in one piece
};

}  // namespace Quovane::Internal::Qvtp
