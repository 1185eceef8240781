#pragma once

#include <qvtp/Export.h>
#include <qvtp/client/QvtpClient.h>
#include <qvtp/server/QvtpServer.h>

#include <memory>
#include <string>

namespace Quovane::Qvtp {

/// The XML configuration file of the process, read once. The library never applies it by itself:
///
///     QvtpConfig::getInstance().setQvtpServerOptions(server, "billing", "backend");
///
/// The file is the one that the environment variable QvtpConfigurationFile names, else QvtpConfig.xml in the current
/// directory. Under any root element it has entries such as
///
///     <QvtpClient function="billing" component="frontend" connect_timeout="5000" stale_timeout="10000"/>
///     <QvtpServer function="billing" component="backend" max_request_processors="8" idle_timeout="13000"/>
///
/// Time-outs are milliseconds, sizes bytes. A file that is missing or malformed is logged at ERROR and leaves no
/// configuration. So does a missing parser: it is a module beside the library, loaded only if there is a file.
/// docs/configuration.md has the details.
class QVTP_API QvtpConfig {
  public:
    /// Reads the file at the first call, from any thread; later changes to file or variable have no effect. On Linux
    /// its path may be of any bytes. If there is no memory to begin with, std::bad_alloc leaves this call, and the next
    /// call begins anew. If memory runs out while the file is parsed, there is no configuration.
    static QvtpConfig& getInstance();

    QvtpConfig(const QvtpConfig&) = delete;
    QvtpConfig& operator=(const QvtpConfig&) = delete;

    /// Applies the first QvtpClient entry with exactly these two attributes; an absent attribute equals an empty
    /// argument. Without such an entry nothing changes. Unknown attributes are logged at ERROR and skipped.
    /// Any thread may call it, for different objects at the same time.
    /// A value that is not a number leaves as the parser library's NumberFormatException (an XMLException of
    /// Xerces-C++). Which of the other attributes are applied then depends on the parser's order of them.
    void setQvtpClientOptions(QvtpClient& client, const std::string& function, const std::string& component);
    /// The same for QvtpServer entries. Apply it before run().
    void setQvtpServerOptions(QvtpServer& server, const std::string& function, const std::string& component);

  private:
    QvtpConfig();
    ~QvtpConfig();
    void loadConfigFile();

    struct Document;
    std::unique_ptr<Document> document_;
};

}  // namespace Quovane::Qvtp
