// What all contenders share: payloads that are checked, the loops that measure, and the conversation with compare.py.
//
// A contender is a program that calls bench::main with its Contender. It is started as
//
//     contender server VARIANT ADDRESS REQUEST RESPONSE CLIENTS WORKLOAD
//     contender client VARIANT ADDRESS REQUEST RESPONSE CLIENTS WORKLOAD MS
//
// where REQUEST and RESPONSE are sizes in bytes. Both print "ready", and answer each line of their standard input with
// one line of JSON. The end of the input ends the server.

#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

namespace bench {

/// How a process is started. Contenders may rely on the sizes: they are the same for all messages of a run.
struct Setup {
    std::string variant;
    std::string address;  ///< a path at which nothing is yet
    std::size_t requestSize = 0;
    std::size_t responseSize = 0;
    int clients = 1;
    std::string workload;  ///< echo, upload, oneway, connect, clients or once
    int ms = 0;

    bool oneWay() const { return workload == "oneway"; }
};

/// The first byte of each request says whether an answer is wanted, for contenders that have no other sign of that.
constexpr char WANTS_ANSWER = 'p';
constexpr char NO_ANSWER = 'n';

/// What a client's end of one connection can do. One thread uses it.
class Connection {
  public:
    Connection() = default;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    virtual ~Connection() = default;

    /// Sends the body, waits for the response and hands it to checkResponse().
    virtual void post(const std::string& body) = 0;
    /// Sends the body, which is not answered.
    virtual void notify(const std::string& body);
};

class Contender {
  public:
    Contender() = default;
    Contender(const Contender&) = delete;
    Contender& operator=(const Contender&) = delete;
    virtual ~Contender() = default;

    virtual std::unique_ptr<Connection> connect(const Setup& setup) = 0;
    /// Calls ready() when clients can connect, then serves. It need not return.
    virtual void serve(const Setup& setup) = 0;
};

/// The server's side of the workload: what is answered to a request. Checks the request. The answer is the request
/// itself, or bytes that stay until the thread's next call.
std::string_view answerTo(const char* request, std::size_t size);
inline std::string_view answerTo(std::string_view request) {
    return answerTo(request.data(), request.size());
}
/// Takes in a request that is not answered.
void takeIn(const char* request, std::size_t size);

/// The client's side: throws if this is not the response to this thread's request.
void checkResponse(const char* response, std::size_t size);
inline void checkResponse(std::string_view response) {
    checkResponse(response.data(), response.size());
}

/// Called by a server once clients can connect.
void ready();

int main(int argc, char** argv, Contender& contender);

}  // namespace bench
