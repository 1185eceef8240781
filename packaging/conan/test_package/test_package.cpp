// A server answers a client in one process. Prints "Hello world".

#include <qvtp/easy.h>

#include <iostream>

int main() try {
    const std::string pipe = "conan-test-package";
    qvtp::Server server(pipe);
    server.onPost("/hello", [](const qvtp::Request& r) { return qvtp::Reply("Hello " + r.body()); });
    server.start();
    qvtp::Client client(pipe, std::chrono::seconds(10));
    std::cout << client.post("/hello", "world").body() << std::endl;
} catch (const qvtp::Error& e) {
    std::cerr << "failed: " << e.what() << std::endl;
    return 1;
}
