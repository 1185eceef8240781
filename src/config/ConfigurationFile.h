#pragma once

#include "config/ParserFunctions.h"

#include <xercesc/framework/LocalFileInputSource.hpp>

#include <string>

namespace Quovane::Internal::Qvtp {

/// The configuration file as the parser's input. The parser would open a path only if the code page of the process can
/// express it; here the library opens the file, under its name as it is. The parser uses the path for messages, and to
/// find what the file refers to.
class ConfigurationFile : public xercesc::LocalFileInputSource {
  public:
    ConfigurationFile(const std::string& path, const ParserCalls& calls);
    ~ConfigurationFile() override;

    /// Null if the file cannot be opened. The parser frees it.
    xercesc::BinInputStream* makeStream() const override;

  private:
    const ParserCalls& calls_;
};

}  // namespace Quovane::Internal::Qvtp
