// Lets each allocation at the start of the XML parser fail, in a process of its own each time. The parser then gives up
// by a handler that its user provides. Its own handler ends the process with 255.
//
//     parser_panic PARSER_MODULE

#include <qvtp/client/QvtpClient.h>
#include <qvtp/config/QvtpConfig.h>
#include <qvtp/message/QvtpMessage.h>

#include "faults/FaultShim.h"

#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace {

using namespace Quovane::Qvtp;
using namespace qvtp_test::faults;

constexpr long MOST = 3000;   // there are no more
constexpr long FURTHER = 50;  // are tried after the one that matters
constexpr int CONFIGURED = 2;
enum Exit { EXIT_CONFIGURED = 0, EXIT_NOT_CONFIGURED = 1, EXIT_WRONG = 2, EXIT_NO_FAULT = 3 };

int staleTimeout() {
    QvtpClient client;
    QvtpConfig::getInstance().setQvtpClientOptions(client, "F", "C");
    return client.getIntegerOption(QvtpClient::IDLE_TIMEOUT);
}

/// The first use of the configuration, of which the nth allocation fails, and a second one.
int useConfiguration(long nth) {
    Plan plan;
    plan.nth = nth;
    begin(plan);
    try {
        const Working working(CLIENT);
        QvtpConfig::getInstance();
    } catch (const std::bad_alloc&) {  // the second use reads the file then
    }
    const bool hasFailed = failed() > 0;
    end();
    if (!hasFailed) return EXIT_NO_FAULT;
    const int value = staleTimeout();
    if (staleTimeout() != value) return EXIT_WRONG;
    return value == CONFIGURED ? EXIT_CONFIGURED : EXIT_NOT_CONFIGURED;
}

/// The child ends as programs do: what the parser has begun is ended too.
int resultInChild(long nth, const std::string& logFile) {
    const pid_t child = ::fork();
    if (child == 0) {
        QvtpMessage::setLoggingLevel(std::fopen(logFile.c_str(), "w"), LoggingLevel::ERROR, nullptr,
                                     CommunicationLevel::OFF);
        std::exit(useConfiguration(nth));
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

/// How often the start was given up, or -1 after a finding.
long startAll(const std::string& logFile) {
    long panics = 0;
    long last = MOST;
    for (long nth = 1; nth <= last; ++nth) {
        const int result = resultInChild(nth, logFile);
        if (result == EXIT_NO_FAULT) break;
        std::ifstream in(logFile);
        const std::string log(std::istreambuf_iterator<char>(in), {});
        const bool saysSo = log.find("Unexpected Exception while parsing the Qvtp configuration file") != log.npos;
        if (result != EXIT_CONFIGURED && (result != EXIT_NOT_CONFIGURED || !saysSo)) {
            std::printf("allocation %ld: the process ends with %d\n%s", nth, result, log.c_str());
            return -1;
        }
        if (result == EXIT_NOT_CONFIGURED) {
            if (panics++ == 0) last = nth + FURTHER;
            std::printf("allocation %ld: %s", nth, log.c_str());
            std::fflush(stdout);  // a child would print it too
        }
    }
    return panics;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2 || ::dlopen(argv[1], RTLD_NOW) == nullptr) {  // loading it has thousands of allocations of its own
        std::fprintf(stderr, "usage: parser_panic PARSER_MODULE\n");
        return 2;
    }
    char pattern[] = "/tmp/qvtp-panic-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) return 2;
    const std::string directory = pattern;
    std::ofstream(directory + "/settings.xml")
        << "<root><QvtpClient function='F' component='C' stale_timeout='" << CONFIGURED << "'/></root>";
    ::setenv("QvtpConfigurationFile", (directory + "/settings.xml").c_str(), 1);
    const long panics = startAll(directory + "/log.txt");
    std::filesystem::remove_all(directory);
    std::printf("the start was given up %ld times\n", panics);
    return panics > 0 ? 0 : 1;
}
