#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace qvtp::cli {

/// A place in a file, as editors count: lines and characters from 1.
struct Place {
    int line = 0, column = 0;
};

struct ConfigAttribute {
    std::string name, value;
    Place place;
};

struct ConfigElement {
    std::string name;
    int depth = 0;  ///< 0: the root, 1: its children
    std::vector<ConfigAttribute> attributes;
    Place place;

    /// Empty if there is no such attribute.
    std::string valueOf(const std::string& attribute) const;
};

/// Another file that a document type, or an entity in it, refers to.
struct ConfigReference {
    bool isGrammar = false;  ///< the document type itself refers to it; else an entity, which may not be used
    std::string name;        ///< as it is written
    Place place;
};

/// Where the elements and attributes of an XML file stand. It is no judge of XML: whether a file is well-formed, and
/// what its options are, the library says with its parser, which keeps no places.
class ConfigText {
  public:
    explicit ConfigText(std::string text);

    /// In the order of the file; those that begin after end() are missing.
    const std::vector<ConfigElement>& elements() const { return elements_; }
    /// Where markup begins that has no end or ends what is not open, or the end of a file with open elements.
    const std::optional<Place>& end() const { return end_; }
    /// The end of a file that ends within a start tag, outside of a value. end() is the beginning of that tag.
    const std::optional<Place>& cut() const { return cut_; }
    /// Where the document type declares the first entity. Elements and values that only entities have are missing.
    const std::optional<Place>& entities() const { return entities_; }
    /// In the order of the file.
    const std::vector<ConfigReference>& references() const { return references_; }
    /// False if the bytes of markup are not those of ASCII, as in UTF-16. Then there are no elements.
    bool isReadable() const { return isReadable_; }

  private:
    void readMarkup();
    void readStartTag();
    void readEndTag();
    ConfigAttribute readAttribute();
    std::string takeName();
    void skipDeclaration();
    void noteReferences();
    void readReference(const char* declaration);
    bool skipAside();
    void skipAfter(const char* ending);
    bool startsWith(const char* text) const;
    void skipSpace();
    char at(std::size_t position) const { return position < text_.size() ? text_[position] : '\0'; }
    Place placeOf(std::size_t position);

    const std::string text_;
    std::size_t position_ = 0;
    std::size_t counted_ = 0;  // place_ is that of this position
    Place place_;
    std::vector<std::string> open_;
    std::vector<ConfigElement> elements_;
    std::optional<Place> end_, cut_, entities_;
    std::vector<ConfigReference> references_;
    bool isReadable_ = true;
};

}  // namespace qvtp::cli
