#pragma once

#include <string>
#include <vector>

namespace Quovane::Internal::Qvtp {

/// One header: its name as it is written on the wire, and its values in the order in which they were added.
class QvtpHeader {
  public:
    QvtpHeader();
    /// The name is trimmed, the value text is split.
    QvtpHeader(const std::string& name, const std::string& valueText);
    QvtpHeader(const QvtpHeader& other);
    QvtpHeader& operator=(const QvtpHeader& other);
    virtual ~QvtpHeader();

    const std::string& getName() const { return name_; }
    /// The first value, or an empty string.
    std::string getValue() const;
    std::vector<std::string> getValues() const { return values_; }

    void setName(const std::string& name);
    /// Splits the text at its commas, trims the pieces and appends those that are not empty.
    void addValues(const std::string& valueText);
    void setValue(const std::string& valueText);

  private:
    std::string name_;
    std::vector<std::string> values_;
};

}  // namespace Quovane::Internal::Qvtp
