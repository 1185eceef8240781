#pragma once

#include "common/WireSyntax.h"

#include <string_view>

namespace Quovane::Internal::Qvtp {

/// A start line, taken apart at its blanks. Words that are not there are empty.
class StartLine {
  public:
    /// The text must outlive it.
    explicit StartLine(std::string_view line) : line_(line) {}

    /// Whether there is more than one word.
    bool hasBlank() const { return blank() != std::string_view::npos; }
    /// Up to the first blank; all of a line without one.
    std::string_view first() const { return line_.substr(0, blank()); }
    /// Between the first blank and the second.
    std::string_view second() const { return after(blank()).substr(0, after(blank()).find(WireSyntax::BLANK)); }
    /// Everything after the second blank.
    std::string_view rest() const {
        return after(line_.find(WireSyntax::BLANK, hasBlank() ? blank() + 1 : line_.size()));
    }
    /// After the last blank; all of a line without one.
    std::string_view last() const { return hasBlank() ? after(line_.rfind(WireSyntax::BLANK)) : line_; }

  private:
    std::size_t blank() const { return line_.find(WireSyntax::BLANK); }
    std::string_view after(std::size_t position) const {
        return position != std::string_view::npos ? line_.substr(position + 1) : std::string_view();
    }

    std::string_view line_;
};

}  // namespace Quovane::Internal::Qvtp
