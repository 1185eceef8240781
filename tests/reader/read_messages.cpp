// Reads messages from standard input and prints what the library makes of each: see compare_readers.py.
//
// A message is a letter, R for a request or S for a response, its length as four bytes, the highest first, and its
// bytes.

#include <qvtp/client/QvtpClient.h>
#include <qvtp/client/QvtpResponse.h>
#include <qvtp/server/QvtpServer.h>
#include <qvtp/server/QvtpServerRequest.h>

#include "common/StringUtils.h"
#include "common/Utf8String.h"
#include "examples/BodyOf.h"
#include "support/PipeName.h"
#include "support/Thrown.h"

#include <cstdint>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

namespace {

using namespace Quovane::Qvtp;
using Quovane::Soa::Internal::Common::StringUtils;

/// Above this a body of known length is read as a stream: the block for it is allocated before its bytes come.
constexpr int LARGEST_BLOCK = 1 << 20;

std::string hex(const std::string& bytes) {
    std::string text;
    for (const char c : bytes) {
        text += "0123456789abcdef"[static_cast<unsigned char>(c) >> 4];
        text += "0123456789abcdef"[static_cast<unsigned char>(c) & 0xF];
    }
    return text;
}

std::vector<std::string> wordsOf(QvtpServerRequest& request) {
    return {request.getMethod(), request.getResource(), request.getQvtpVersion().toString()};
}

std::vector<std::string> wordsOf(QvtpResponse& response) {
    return {std::to_string(response.getStatusCode()), response.getReasonPhrase(), response.getQvtpVersion().toString()};
}

std::string readBody(QvtpMessageIn& message) {
    if (StringUtils::toInteger(message.getHeader(QvtpMessage::HEADER_CONTENT_LENGTH)) <= LARGEST_BLOCK) {
        return example::bodyOf(message);
    }
    return {std::istreambuf_iterator<char>(*message.getBodyStream()), {}};
}

template <typename Message>
void describe(Message& message, std::istringstream& pipe) {
    std::cout << "head " << qvtp_test::thrownBy([&] { message.getStartLine(); });
    std::cout << "\nstart " << hex(message.getStartLine());
    for (const std::string& word : wordsOf(message)) std::cout << "\nword " << hex(word);
    for (const std::string& name : message.getHeaderNames()) {
        std::cout << "\nheader " << (name.empty() ? "-" : hex(name));
        for (const std::string& value : message.getHeaders(name)) std::cout << ' ' << hex(value);
    }
    std::string body;
    std::cout << "\nbody " << qvtp_test::thrownBy([&] { body = readBody(message); });
    pipe.clear();
    std::cout << "\ndata " << hex(body) << "\nleft " << hex({std::istreambuf_iterator<char>(pipe), {}}) << "\n\n";
}

}  // namespace

int main() {
    std::ios::sync_with_stdio(false);
    QvtpClient client;
    QvtpServer server(qvtp_test::uniquePipeName("reader"), 1);
    Quovane::Soa::Common::Xml::Utf8String converter;
    char begin[5];
    while (std::cin.read(begin, sizeof begin)) {
        std::size_t size = 0;
        for (int i = 1; i < 5; ++i) size = size << 8 | static_cast<unsigned char>(begin[i]);
        std::string bytes(size, '\0');
        if (!std::cin.read(bytes.data(), static_cast<std::streamsize>(size))) return 1;
        std::istringstream pipe(bytes);
        if (begin[0] == 'R') {
            QvtpServerRequest request(&server, &pipe, &converter);
            describe(request, pipe);
        } else {
            QvtpResponse response(&client, &pipe);
            describe(response, pipe);
        }
    }
    return 0;
}
