// What one side writes the other one reads: start line, headers and body, in both framings.

#include <qvtp/client/QvtpClient.h>
#include <qvtp/client/QvtpResponse.h>
#include <qvtp/server/QvtpServer.h>
#include <qvtp/server/QvtpServerResponse.h>

#include "common/Utf8String.h"
#include "examples/BodyOf.h"
#include "message/HeaderBlock.h"

#include <cstdint>
#include <cstdlib>
#include <random>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace Quovane::Qvtp;
using Quovane::Internal::Qvtp::HeaderBlock;
using Quovane::Soa::Common::Xml::Utf8String;

/// Takes the input apart.
class Input {
  public:
    Input(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    std::uint8_t byte() {
        if (size_ == 0) return 0;
        --size_;
        return *data_++;
    }
    std::string text(std::size_t length) {
        std::string taken;
        while (taken.size() < length && size_ > 0) taken += static_cast<char>(byte());
        return taken;
    }
    std::string rest() { return text(size_); }

  private:
    const std::uint8_t* data_;
    std::size_t size_;
};

/// A token of RFC 9110 section 5.6.2.
std::string nameFrom(Input& input) {
    std::string name = "X";
    for (const char c : input.text(input.byte() % 8U)) name += "ABCxyz09-_.~!#"[static_cast<unsigned char>(c) % 14];
    return name;
}

/// A value as its reader has it: without white space at its ends, well-formed, no line ends; none if nothing is left.
std::vector<std::string> asRead(const std::vector<std::string>& values, const Utf8String& converter) {
    std::vector<std::string> result;
    for (const std::string& value : values) {
        std::string sent;
        converter.appendEncoded(value, sent);
        const std::size_t begin = sent.find_first_not_of(" \t\r\n");
        if (begin == std::string::npos) continue;
        result.push_back(sent.substr(begin, sent.find_last_not_of(" \t\r\n") + 1 - begin));
    }
    return result;
}

void require(bool condition) {
    if (!condition) std::abort();
}

QvtpServer& server() {
    static QvtpServer one("round-trip-" + std::to_string(std::random_device()()), 1);
    return one;
}

void sendBody(QvtpServerResponse& response, const std::string& body, std::uint8_t form) {
    if (form % 2 == 0) {
        response.setBody(body.data(), body.size());
    } else {
        std::ostream& stream = *response.getBodyStream();
        const std::size_t piece = form / 2U + 1;
        for (std::size_t i = 0; i < body.size(); i += piece) {
            stream << body.substr(i, piece);
            if (form % 3 == 0) stream.flush();
        }
    }
    response.send();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static QvtpClient client;
    Utf8String converter;
    Input input(data, size);
    const std::uint8_t form = input.byte();
    const int status = 100 + input.byte() * 3;
    const std::string reason = input.text(input.byte() % 16U);
    HeaderBlock headers;
    std::stringstream pipe;
    std::string body;
    {
        QvtpServerResponse response(&server(), &pipe, &converter);
        response.setStatusCode(status, reason);
        for (int left = input.byte() % 4; left > 0; --left) {
            const std::string name = nameFrom(input);
            const std::string value = input.text(input.byte() % 32U);
            headers.addHeader(name, value);
            response.addHeader(name, value);
        }
        body = input.rest();
        sendBody(response, body, form);
    }
    QvtpResponse read(&client, &pipe);
    require(read.getStatusCode() == status);
    require(example::bodyOf(read) == body);
    for (const std::string& name : headers.getHeaderNames()) {
        require(read.getHeaders(name) == asRead(headers.getHeaders(name), converter));
    }
    require(read.getHeader(QvtpMessage::HEADER_SERVER) == "QvtpServer");
    require(pipe.peek() == std::stringstream::traits_type::eof());
    return 0;
}
