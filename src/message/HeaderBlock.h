#pragma once

#include "common/Utf8String.h"
#include "message/HeaderRecord.h"

#include <cstddef>
#include <istream>
#include <memory_resource>
#include <string>
#include <string_view>
#include <vector>

namespace Quovane::Internal::Qvtp {

/// The headers of one message. Names match without regard to case and to white space around them; iteration and writing
/// follow the byte order of the upper-cased names, never the order of addition. No operation fails.
class HeaderBlock {
  public:
    using Utf8String = Quovane::Soa::Common::Xml::Utf8String;

    HeaderBlock();

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
    void write(std::string& out, const Utf8String& converter) const;
    /// Adds the headers of all lines up to the empty one, which it consumes, and records the lines in the communication
    /// log. Throws as StreamUtil::readLine.
    void read(std::istream& in, const Utf8String& converter);

  private:
    using Records = std::pmr::vector<HeaderRecord>;

    static constexpr std::size_t USUAL_COUNT = 4;
    static constexpr std::size_t USUAL_TEXT = 256;  // bytes of their names and values

    HeaderBlock(const HeaderBlock&) = delete;
    HeaderBlock& operator=(const HeaderBlock&) = delete;

    struct Place {
        Records::iterator record;
        bool isTaken;
    };

    Place placeOf(std::string_view key);
    const HeaderRecord* recordOf(std::string_view name) const;
    void sortOut();
    void joinThoseOfOneName();
    void sortOutWhatThereIs() noexcept;
    void readPlainBlock(std::string_view block);
    void readLines(std::istream& in, const Utf8String& converter);
    void readHeader(std::istream& in, std::string_view line, const Utf8String& converter);

    // Messages have few headers: these need no memory of their own. More of them come from the heap, whatever resource
    // the application has made the default. What a header gives up is free again only with the block.
    alignas(HeaderRecord) std::byte room_[USUAL_COUNT * sizeof(HeaderRecord) + USUAL_TEXT];
    std::pmr::monotonic_buffer_resource memory_{room_, sizeof room_, std::pmr::new_delete_resource()};
    Records records_{&memory_};  // in the order of their upper-cased keys
};

}  // namespace Quovane::Internal::Qvtp
