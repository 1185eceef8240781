#include "cli/ConfigText.h"

#include <Poco/UTF8Encoding.h>

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>

namespace qvtp::cli {

namespace {

constexpr char SPACE[] = " \t\r\n";

/// Thrown where markup does not go on.
struct BadMarkup {
    bool isEndOfFile = false;
};

std::string utf8Of(unsigned long character) {
    unsigned char bytes[4];
    const int size = Poco::UTF8Encoding().convert(static_cast<int>(character), bytes, sizeof(bytes));
    return {bytes, bytes + size};
}

/// What "&name;" stands for; itself if only a document type knows.
std::string replacementOf(const std::string& name) {
    constexpr std::pair<const char*, const char*> KNOWN[] = {
        {"lt", "<"}, {"gt", ">"}, {"amp", "&"}, {"quot", "\""}, {"apos", "'"}};
    for (const auto& [known, character] : KNOWN) {
        if (name == known) return character;
    }
    if (name.size() > 1 && name[0] == '#') {
        const bool isHex = name[1] == 'x';
        return utf8Of(std::strtoul(name.c_str() + (isHex ? 2 : 1), nullptr, isHex ? 16 : 10) & 0x1fffff);
    }
    return "&" + name + ";";
}

/// An attribute's value as a parser reports it.
std::string valueOf(std::string_view raw) {
    std::string value;
    bool hasEnd = true;  // where none was found there is none further on
    for (std::size_t i = 0; i < raw.size(); ++i) {
        const bool isReference = raw[i] == '&' && hasEnd;
        const std::size_t end = isReference ? raw.find(';', i) : raw.npos;
        if (isReference) hasEnd = end != raw.npos;
        if (end != raw.npos) {
            value += replacementOf(std::string(raw.substr(i + 1, end - i - 1)));
            i = end;
        } else {
            const bool isSpace = raw[i] == '\t' || raw[i] == '\r' || raw[i] == '\n';
            if (raw.substr(i, 2) == "\r\n") continue;  // one line end, one space
            value += isSpace ? ' ' : raw[i];
        }
    }
    return value;
}

}  // namespace

std::string ConfigElement::valueOf(const std::string& attribute) const {
    for (const ConfigAttribute& one : attributes) {
        if (one.name == attribute) return one.value;
    }
    return {};
}

ConfigText::ConfigText(std::string text) : text_(std::move(text)) {
    isReadable_ = text_.find('\0') == text_.npos && text_.find('<') != text_.npos;
    if (!isReadable_) return;
    while ((position_ = text_.find('<', position_)) != text_.npos) {
        const std::size_t begin = position_;
        try {
            readMarkup();
        } catch (const BadMarkup& bad) {
            const bool isSecondRoot = open_.empty() && !elements_.empty();
            end_ = placeOf(begin);
            if (bad.isEndOfFile && at(begin + 1) != '/' && !isSecondRoot) cut_ = placeOf(text_.size());
            return;
        }
    }
    if (!open_.empty()) end_ = placeOf(text_.size());
}

void ConfigText::readMarkup() {
    if (startsWith("<!--")) {
        skipAfter("-->");
    } else if (startsWith("<![CDATA[")) {
        skipAfter("]]>");
    } else if (startsWith("<?")) {
        skipAfter("?>");
    } else if (startsWith("<!")) {
        skipDeclaration();
    } else if (startsWith("</")) {
        readEndTag();
    } else {
        readStartTag();
    }
}

void ConfigText::readStartTag() {
    ConfigElement element;
    element.place = placeOf(position_++);
    element.depth = static_cast<int>(open_.size());
    element.name = takeName();
    for (skipSpace(); at(position_) != '>' && at(position_) != '/'; skipSpace()) {
        element.attributes.push_back(readAttribute());
    }
    if (position_ + 1 == text_.size() && text_[position_] == '/') throw BadMarkup{true};
    if (at(position_) != '/') open_.push_back(element.name);
    skipAfter(">");
    elements_.push_back(std::move(element));
}

void ConfigText::readEndTag() {
    position_ += 2;
    if (open_.empty() || takeName() != open_.back()) throw BadMarkup();
    open_.pop_back();
    skipAfter(">");
}

ConfigAttribute ConfigText::readAttribute() {
    ConfigAttribute attribute;
    attribute.place = placeOf(position_);
    attribute.name = takeName();
    skipSpace();
    if (at(position_++) != '=') throw BadMarkup();
    skipSpace();
    const char quote = at(position_++);
    const std::size_t end = text_.find(quote, position_);
    if ((quote != '"' && quote != '\'') || end == text_.npos) throw BadMarkup();
    attribute.value = valueOf(std::string_view(text_).substr(position_, end - position_));
    position_ = end + 1;
    return attribute;
}

std::string ConfigText::takeName() {
    const std::size_t begin = position_;
    position_ = text_.find_first_of(" \t\r\n=/>", begin);
    if (position_ == text_.npos || position_ == begin) throw BadMarkup{position_ == text_.npos};
    return text_.substr(begin, position_ - begin);
}

/// A document type, with what stands in its brackets.
void ConfigText::skipDeclaration() {
    for (bool isWithin = false;; ++position_) {
        const char c = at(position_);
        if (c == '\0') throw BadMarkup();
        noteReferences();
        if (skipAside()) {
            --position_;
        } else if (c == '"' || c == '\'') {
            position_ = text_.find(c, position_ + 1);
            if (position_ == text_.npos) throw BadMarkup();
        } else if (c == '[' || c == ']') {
            isWithin = c == '[';
        } else if (c == '>' && !isWithin) {
            break;
        }
    }
    ++position_;
}

void ConfigText::noteReferences() {
    if (startsWith("<!ENTITY") && !entities_) entities_ = placeOf(position_);
    if (startsWith("<!ENTITY")) readReference("<!ENTITY");
    if (startsWith("<!DOCTYPE")) readReference("<!DOCTYPE");
}

/// What this declaration refers to by SYSTEM or PUBLIC, if it does. It does not move on.
void ConfigText::readReference(const char* declaration) {
    const std::string_view text = text_;
    std::size_t next = position_ + std::string_view(declaration).size();
    const auto takeWord = [&] {
        const std::size_t begin = std::min(text.find_first_not_of(SPACE, next), text.size());
        next = std::min(text.find_first_of(" \t\r\n[]>\"'", begin), text.size());
        return text.substr(begin, next - begin);
    };
    if (takeWord() == "%") takeWord();
    const std::string_view kind = takeWord();
    if (kind != "SYSTEM" && kind != "PUBLIC") return;
    const std::size_t place = next - kind.size();
    std::string_view name;
    for (int literals = kind == "PUBLIC" ? 2 : 1; literals > 0; --literals) {
        const std::size_t quote = std::min(text.find_first_not_of(SPACE, next), text.size());
        const bool isQuote = at(quote) == '"' || at(quote) == '\'';
        const std::size_t end = isQuote ? text.find(text[quote], quote + 1) : text.npos;
        if (end == text.npos) return;
        name = text.substr(quote + 1, end - quote - 1);
        next = end + 1;
    }
    if (takeWord() == "NDATA") return;  // no text: nobody reads it
    references_.push_back({std::string_view(declaration) == "<!DOCTYPE", std::string(name), placeOf(place)});
}

/// A comment or an instruction: quotes and brackets mean nothing there.
bool ConfigText::skipAside() {
    const bool isComment = startsWith("<!--");
    if (!isComment && !startsWith("<?")) return false;
    skipAfter(isComment ? "-->" : "?>");
    return true;
}

void ConfigText::skipAfter(const char* ending) {
    const std::size_t found = text_.find(ending, position_);
    if (found == text_.npos) throw BadMarkup();
    position_ = found + std::string_view(ending).size();
}

bool ConfigText::startsWith(const char* text) const {
    return text_.compare(position_, std::string_view(text).size(), text) == 0;
}

void ConfigText::skipSpace() {
    position_ = text_.find_first_not_of(SPACE, position_);
    if (position_ == text_.npos) throw BadMarkup{true};
}

/// Counts on from the last place: the file is walked through once, however many places there are.
Place ConfigText::placeOf(std::size_t position) {
    const bool hasMark = text_.compare(0, 3, "\xEF\xBB\xBF") == 0;
    if (position < counted_ || counted_ == 0) {
        counted_ = hasMark ? 3 : 0;
        place_ = {1, 1};
    }
    for (; counted_ < position; ++counted_) {
        if (text_[counted_] == '\n') {
            place_ = {place_.line + 1, 1};
        } else if ((static_cast<unsigned char>(text_[counted_]) & 0xC0) != 0x80) {  // not what goes on
            ++place_.column;
        }
    }
    return place_;
}

}  // namespace qvtp::cli
