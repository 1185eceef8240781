#pragma once

#include <qvtp/client/QvtpClient.h>
#include <qvtp/server/QvtpServer.h>

#include "config/ParserFunctions.h"

#include <string>
#include <vector>

namespace Quovane::Internal::Qvtp {

/// A configuration file, read once: what QvtpConfig is made of, which a process has one of.
class ConfigurationDocument {
  public:
    struct Attribute {
        std::string name;
        std::string value;
    };

    /// A child element of the root.
    struct Entry {
        std::string kind;
        std::vector<Attribute> attributes;
    };

    /// Finds the file by the environment.
    ConfigurationDocument();
    ConfigurationDocument(const ConfigurationDocument&) = delete;
    ConfigurationDocument& operator=(const ConfigurationDocument&) = delete;

    /// Reads the file. What is wrong is logged, and leaves no configuration.
    void load();
    /// Whether there is a configuration.
    bool isRead() const { return isRead_; }
    /// In the order of the file.
    const std::vector<Entry>& entries() const { return entries_; }

    /// As QvtpConfig does it.
    void apply(Quovane::Qvtp::QvtpClient& client, const std::string& function, const std::string& component) const;
    void apply(Quovane::Qvtp::QvtpServer& server, const std::string& function, const std::string& component) const;

  private:
    void startParser();
    void read();
    template <typename Target>
    void applyEntry(Target& target, const char* kind, const std::string& function, const std::string& component) const;

    const std::string path_;
    const bool isThere_;
    const ParserFunctions* parser_ = nullptr;  // not owned; null without a file, or without the module
    std::string parserFailure_;
    bool isRead_ = false;
    std::vector<Entry> entries_;
};

}  // namespace Quovane::Internal::Qvtp
