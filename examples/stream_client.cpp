// Posts a file of any length as a stream and stores the streamed answer in another.
//
//     stream_client PIPE RESOURCE INPUT-FILE OUTPUT-FILE

#include "common.h"

#include <fstream>
#include <iostream>
#include <memory>
#include <stdexcept>
#include <vector>

using namespace Quovane::Qvtp;

int main(int argc, char** argv) {
    if (argc != 5) {
        std::cerr << "usage: stream_client PIPE RESOURCE INPUT-FILE OUTPUT-FILE\n";
        return 2;
    }
    return example::run([&] {
        std::ifstream input(argv[3], std::ios::binary);
        std::ofstream output(argv[4], std::ios::binary);
        if (!input || !output) throw std::runtime_error("a file cannot be opened");

        QvtpClient client;
        PostRequest request(&client, argv[1], argv[2]);
        request.setBodyStream(&input);
        const std::unique_ptr<QvtpResponse> response(request.execute());
        // Not "output << stream->rdbuf()": that would drop the exception of an answer that is cut off.
        std::istream& answer = *response->getBodyStream();
        std::vector<char> piece(65536);
        while (answer.read(piece.data(), static_cast<std::streamsize>(piece.size())), answer.gcount() > 0) {
            output.write(piece.data(), answer.gcount());
        }
        output.close();
        std::cout << response->getStatusCode() << " " << response->getReasonPhrase() << std::endl;
        if (!output) throw std::runtime_error("the answer could not be stored");
    });
}
