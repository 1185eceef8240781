#pragma once

#include <qvtp/Export.h>

#include <string>

namespace Quovane::Qvtp {

/// A protocol version, printed and parsed as "QVTP/" major "." minor. A value: copies are independent, and a constant
/// object may be read by any thread. Nothing throws, unless memory runs out.
class QVTP_API Version {
  public:
    /// The version that this library speaks and that every outgoing start line carries: 1.0. It is a constant of the
    /// program: static objects may use it before and after everything else.
    static const Version CURRENT_VERSION;

    /// The current version.
    Version();
    /// Any two numbers, unchecked.
    Version(int major, int minor);
    Version(const Version& other);
    Version& operator=(const Version& other);
    /// Parses a label such as "QVTP/1.0"; white space around it is ignored. There is no error: what cannot be read
    /// keeps its value of 1.0. So "QVTP/2" is 2.0, and anything without the upper-case prefix is 1.0.
    explicit Version(const std::string& label);

    int getMajor() const;
    int getMinor() const;

    bool operator==(const Version& other) const;
    bool operator!=(const Version& other) const;
    bool operator<(const Version& other) const;
    bool operator<=(const Version& other) const;
    bool operator>(const Version& other) const;
    bool operator>=(const Version& other) const;

    /// The label of this version, with plain decimal numbers.
    std::string toString() const;

  private:
    struct Constant {};
    /// A template, and so no exported name, unlike Version(int, int).
    template <typename Kind>
    constexpr Version(Kind, int major, int minor) : major_(major), minor_(minor) {}

    static const std::string sQvtpLabel;

    int major_;
    int minor_;
};

}  // namespace Quovane::Qvtp
