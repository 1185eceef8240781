#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace Quovane::Internal::Qvtp {

/// One header: its name as it is written on the wire, and its values in the order in which they were added. It owns its
/// texts; a block holds a HeaderRecord instead, which does not.
class QvtpHeader {
  public:
    QvtpHeader() = default;
    /// As after setName().
    explicit QvtpHeader(std::string_view name);
    /// The name is trimmed, the value text is split.
    QvtpHeader(const std::string& name, const std::string& valueText);
    QvtpHeader(const QvtpHeader& other) = default;
    QvtpHeader& operator=(const QvtpHeader& other) = default;
    QvtpHeader(QvtpHeader&& other) noexcept = default;
    QvtpHeader& operator=(QvtpHeader&& other) noexcept = default;
    virtual ~QvtpHeader() = default;

    const std::string& getName() const { return name_; }
    /// The first value, or an empty string.
    std::string getValue() const { return first_; }
    std::vector<std::string> getValues() const;

    /// Calls `action` with each value in turn.
    template <typename Action>
    void forEachValue(const Action& action) const {
        if (hasValue()) action(first_);
        for (const std::string& value : more_) action(value);
    }

    void setName(std::string_view name);
    /// Splits the text at its commas, trims the pieces and appends those that are not empty.
    void addValues(std::string_view valueText);
    void setValue(std::string_view valueText);

  private:
    bool hasValue() const { return !first_.empty(); }  // no value is empty

    std::string name_;
    std::string first_;              // most headers have one value
    std::vector<std::string> more_;  // the others
};

}  // namespace Quovane::Internal::Qvtp
