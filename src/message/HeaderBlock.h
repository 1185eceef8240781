#pragma once

#include "common/Utf8String.h"
#include "message/HeaderMemory.h"
#include "message/HeaderRecord.h"

#include <forward_list>
#include <istream>
#include <string>
#include <string_view>
#include <vector>

namespace Quovane::Internal::Qvtp {

/// The headers of one message. Names match without regard to case and to white space around them; iteration and writing
/// follow the byte order of the upper-cased names, never the order of addition. No operation fails.
class HeaderBlock {
  public:
    using Utf8String = Quovane::Soa::Common::Xml::Utf8String;

    HeaderBlock() = default;

    std::string getHeader(std::string_view name) const { return std::string(firstValue(name)); }
    /// The same, in the block's own memory: until the block changes.
    std::string_view firstValue(std::string_view name) const;
    std::vector<std::string> getHeaders(std::string_view name) const;
    std::vector<std::string> getHeaderNames() const;

    void addHeader(std::string_view name, std::string_view value);
    /// The same for a name and a single value that are plain, without commas and without white space at their ends.
    /// False if there was a header of that name.
    bool addPlainHeader(std::string_view name, std::string_view value);
    void setHeader(std::string_view name, std::string_view value);
    void removeHeader(std::string_view name);

    /// Appends the block's lines, without the empty line after it.
    template <typename Text>
    void write(Text& out, const Utf8String& converter) const {
        for (const HeaderRecord& record : records_) record.write(out, converter);
    }
    /// Copies a text into the block's memory.
    std::string_view keep(std::string_view text) { return HeaderRecord::keep(text, memory_); }

    /// Adds the headers of all lines up to the empty one, which it consumes, and records the lines in the communication
    /// log. Throws as StreamUtil::readLine.
    void read(std::istream& in, const Utf8String& converter);

  private:
    using Records = std::forward_list<HeaderRecord, HeaderAllocator<HeaderRecord>>;

    HeaderBlock(const HeaderBlock&) = delete;
    HeaderBlock& operator=(const HeaderBlock&) = delete;

    /// That of a header, or where it would be.
    struct Place {
        Records::iterator before;
        Records::iterator record;  // the end, if there is none
    };

    Place placeOf(std::string_view key);
    const HeaderRecord* recordOf(std::string_view name) const;
    Records::iterator lastRecord();
    bool isInOrder() const;
    void sortOut() noexcept;
    void readPlainBlock(std::string_view block);
    void readLines(std::istream& in, const Utf8String& converter);
    Records::iterator readHeader(Records::iterator last, std::istream& in, std::string_view line,
                                 const Utf8String& converter);

    HeaderMemory memory_;
    Records records_{HeaderAllocator<HeaderRecord>(memory_)};  // in the order of their upper-cased keys
    Records joined_{HeaderAllocator<HeaderRecord>(memory_)};   // in the chains of those, in no order
};

}  // namespace Quovane::Internal::Qvtp
