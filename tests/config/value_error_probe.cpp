// Applies an entry whose value is no number, as an application that knows the parser's classes. A program of its own,
// since no other is linked with the parser.

#include <qvtp/qvtp.h>

#include <xercesc/util/NumberFormatException.hpp>
#include <xercesc/util/XMLString.hpp>

#include <cstdio>

using namespace Quovane::Qvtp;

int main() {
    QvtpClient client;
    try {
        QvtpConfig::getInstance().setQvtpClientOptions(client, "F", "C");
    } catch (const xercesc::NumberFormatException& e) {
        char* message = xercesc::XMLString::transcode(e.getMessage());
        std::printf("NumberFormatException %s\n", message);
        xercesc::XMLString::release(&message);
        return 0;
    } catch (...) {
        std::puts("another exception");
        return 1;
    }
    std::puts("no exception");
    return 1;
}
