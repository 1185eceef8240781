// Sends a text that is not answered.
//
//     notify_client PIPE RESOURCE TEXT

#include "common.h"

#include <cstring>
#include <iostream>

using namespace Quovane::Qvtp;

int main(int argc, char** argv) {
    if (argc != 4) {
        std::cerr << "usage: notify_client PIPE RESOURCE TEXT\n";
        return 2;
    }
    return example::run([&] {
        QvtpClient client;
        NotifyRequest request(&client, argv[1], argv[2]);
        request.setBody(argv[3], std::strlen(argv[3]));
        request.execute();
    });
}
