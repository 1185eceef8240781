// Keeps notes, until somebody presses Ctrl-C.
//
//     easy_server PIPE
//
// POST /notes/NAME     keeps the body as the note of this name; an empty one gives the note back, or 404
// POST /lines          answers with the number of lines of a body of any size
// POST /numbers        streams the numbers up to the one in the body, a line each
// NOTIFY /log          prints what it was sent

#include <qvtp/easy.h>

#include <iostream>
#include <map>
#include <mutex>

namespace {

using qvtp::Reply;
using qvtp::Request;

// Handlers run on several threads at once.
class Notes {
  public:
    Reply handle(const Request& request) {
        const std::string name = qvtp::percentDecode(request.rest());
        const std::string& text = request.body();
        const std::lock_guard<std::mutex> guard(mutex_);
        if (!text.empty()) return notes_[name] = text, Reply(200);
        const auto found = notes_.find(name);
        return found != notes_.end() ? Reply(found->second) : Reply(404, "There is no note " + name + ".");
    }

  private:
    std::mutex mutex_;
    std::map<std::string, std::string> notes_;
};

Reply countLines(const Request& request) {
    std::size_t lines = 0;
    for (std::string line; std::getline(request.stream(), line);) ++lines;
    return Reply(std::to_string(lines)).addHeader("Content-Type", "text/plain");
}

Reply streamNumbers(const Request& request) {
    const int last = std::stoi(request.body());  // what it throws becomes a status 500
    return Reply::stream([last](std::ostream& out) {
        for (int i = 1; i <= last; ++i) out << i << '\n';
    });
}

}  // namespace

int main(int argc, char** argv) try {
    if (argc != 2) {
        std::cerr << "usage: easy_server PIPE\n";
        return 2;
    }
    Notes notes;
    qvtp::ServerOptions options;
    options.limits.bodyBytes = 16 << 20;
    qvtp::Server server(argv[1], options);
    server.onPost("/notes/*", [&](const Request& request) { return notes.handle(request); });
    server.onPost("/lines", countLines);
    server.onPost("/numbers", streamNumbers);
    server.onNotify("/log", [](const Request& request) { std::cout << request.body() + "\n" << std::flush; });
    server.onError([](const Request& request, const std::string& text) {
        std::cerr << request.resource() + " from process " + std::to_string(request.peer().processId) + ": " + text +
                         "\n";
    });
    const bool isWhole = server.runUntilSignal();
    std::cout << server.counters().posts << " requests answered" << (isWhole ? "" : ", some cut off") << std::endl;
} catch (const qvtp::Error& e) {
    std::cerr << "failed: " << e.what() << std::endl;
    return 1;
}
