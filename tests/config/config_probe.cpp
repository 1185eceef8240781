// Applies the configuration file of its process to a client and a server and prints log and options. A program of its
// own, since a process reads its configuration once.
//
//     config_probe [FUNCTION [COMPONENT [DIRECTORY]]]     from that directory, entered after the start

#include <qvtp/qvtp.h>

#include "support/PipeName.h"

#include <cstdio>
#include <exception>
#include <filesystem>

namespace {

using namespace Quovane::Qvtp;

void printClient(const QvtpClient& client) {
    std::printf("client %d %d %d %s\n", client.getIntegerOption(QvtpClient::CONNECTION_TIMEOUT),
                client.getIntegerOption(QvtpClient::IDLE_TIMEOUT), client.getIntegerOption(QvtpClient::BUFFER_SIZE),
                client.getStringOption(QvtpClient::USER_AGENT).c_str());
}

void printServer(const QvtpServer& server) {
    std::printf("server %d %d %d %d %d %s\n", server.getIntegerOption(QvtpServer::MAX_REQUEST_PROCESSORS),
                server.getIntegerOption(QvtpServer::ACCEPT_TIMEOUT), server.getIntegerOption(QvtpServer::IDLE_TIMEOUT),
                server.getIntegerOption(QvtpServer::RECEIVE_TIMEOUT), server.getIntegerOption(QvtpServer::BUFFER_SIZE),
                server.getStringOption(QvtpServer::SERVER_NAME).c_str());
}

/// The value error is a class of the parser, which this program does not know; value_error_probe.cpp does.
template <typename Apply>
void apply(const char* what, const Apply& action) {
    try {
        action();
    } catch (const std::exception& e) {
        std::printf("%s: std::exception %s\n", what, e.what());
    } catch (...) {
        std::printf("%s: foreign exception\n", what);
    }
}

}  // namespace

int main(int argc, char** argv) {
    const std::string function = argc > 1 ? argv[1] : "";
    const std::string component = argc > 2 ? argv[2] : "";
    if (argc > 3) std::filesystem::current_path(argv[3]);
    QvtpClient client;
    QvtpServer server(qvtp_test::uniquePipeName(), 1);
    QvtpMessage::setLoggingLevel(stdout, LoggingLevel::DEBUG, nullptr, CommunicationLevel::OFF);
    QvtpConfig& config = QvtpConfig::getInstance();
    apply("client", [&] { config.setQvtpClientOptions(client, function, component); });
    apply("server", [&] { config.setQvtpServerOptions(server, function, component); });
    QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, nullptr, CommunicationLevel::OFF);
    printClient(client);
    printServer(server);
    return &config == &QvtpConfig::getInstance() ? 0 : 1;
}
