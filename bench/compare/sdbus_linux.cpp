// sd-bus, point to point: both ends of a connection are each other's only peer, without a bus daemon. A method takes
// and returns an array of bytes. A thread for each connection on the server.

#include "Harness.h"

#include <systemd/sd-bus.h>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <system_error>
#include <thread>

namespace {

constexpr char PATH[] = "/echo";
constexpr char INTERFACE[] = "bench.Echo";

int checked(int result, const char* what) {
    if (result < 0) throw std::system_error(-result, std::generic_category(), what);
    return result;
}

int checkedCall(int result, const char* what) {
    return checked(result < 0 ? -errno : result, what);
}

struct Unref {
    void operator()(sd_bus* bus) const { sd_bus_close_unref(bus); }
    void operator()(sd_bus_message* message) const { sd_bus_message_unref(message); }
};
using Bus = std::unique_ptr<sd_bus, Unref>;
using Message = std::unique_ptr<sd_bus_message, Unref>;

Bus newBus() {
    sd_bus* bus = nullptr;
    checked(sd_bus_new(&bus), "sd_bus_new");
    return Bus(bus);
}

std::string_view bytesOf(sd_bus_message* message) {
    const void* data = nullptr;
    std::size_t size = 0;
    checked(sd_bus_message_read_array(message, 'y', &data, &size), "sd_bus_message_read_array");
    return {static_cast<const char*>(data), size};
}

class BusConnection : public bench::Connection {
  public:
    explicit BusConnection(const bench::Setup& setup) : bus_(newBus()) {
        checked(sd_bus_set_address(bus_.get(), ("unix:path=" + setup.address).c_str()), "sd_bus_set_address");
        checked(sd_bus_start(bus_.get()), "sd_bus_start");
    }

    void post(const std::string& body) override {
        sd_bus_message* reply = nullptr;
        checked(sd_bus_call(bus_.get(), call("Post", body).get(), 0, nullptr, &reply), "sd_bus_call");
        const Message owner(reply);
        bench::checkResponse(bytesOf(reply));
    }

    void notify(const std::string& body) override {
        const Message message = call("Notify", body);
        checked(sd_bus_message_set_expect_reply(message.get(), 0), "sd_bus_message_set_expect_reply");
        checked(sd_bus_send(bus_.get(), message.get(), nullptr), "sd_bus_send");
        // What the socket does not take at once waits in a queue, which would grow without end.
        checked(sd_bus_flush(bus_.get()), "sd_bus_flush");
    }

  private:
    Message call(const char* member, const std::string& body) {
        sd_bus_message* message = nullptr;
        checked(sd_bus_message_new_method_call(bus_.get(), &message, nullptr, PATH, INTERFACE, member), "new call");
        Message owner(message);
        checked(sd_bus_message_append_array(message, 'y', body.data(), body.size()), "append");
        return owner;
    }

    Bus bus_;
};

int handle(sd_bus_message* message, void*, sd_bus_error*) {
    if (sd_bus_message_is_method_call(message, INTERFACE, "Notify") > 0) {
        const std::string_view body = bytesOf(message);
        bench::takeIn(body.data(), body.size());
        return 1;
    }
    if (sd_bus_message_is_method_call(message, INTERFACE, "Post") <= 0) return 0;
    const std::string_view answer = bench::answerTo(bytesOf(message));
    sd_bus_message* reply = nullptr;
    checked(sd_bus_message_new_method_return(message, &reply), "new reply");
    const Message owner(reply);
    checked(sd_bus_message_append_array(reply, 'y', answer.data(), answer.size()), "append");
    checked(sd_bus_send(nullptr, reply, nullptr), "sd_bus_send");
    return 1;
}

void serveConnection(int fd) {
    const Bus bus = newBus();
    checked(sd_bus_set_fd(bus.get(), fd, fd), "sd_bus_set_fd");
    sd_id128_t id;
    checked(sd_id128_randomize(&id), "sd_id128_randomize");
    checked(sd_bus_set_server(bus.get(), 1, id), "sd_bus_set_server");
    checked(sd_bus_add_filter(bus.get(), nullptr, handle, nullptr), "sd_bus_add_filter");
    checked(sd_bus_start(bus.get()), "sd_bus_start");
    while (true) {
        const int processed = sd_bus_process(bus.get(), nullptr);
        if (processed < 0) return;  // the client has gone
        if (processed == 0 && sd_bus_wait(bus.get(), UINT64_MAX) < 0) return;
    }
}

class SdBus : public bench::Contender {
  public:
    std::unique_ptr<bench::Connection> connect(const bench::Setup& setup) override {
        return std::make_unique<BusConnection>(setup);
    }

    void serve(const bench::Setup& setup) override {
        const int listener = checkedCall(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, setup.address.c_str(), sizeof address.sun_path - 1);
        checkedCall(::bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), "bind");
        checkedCall(::listen(listener, 128), "listen");
        bench::ready();
        while (true) {
            const int fd = checkedCall(::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK), "accept");
            std::thread(serveConnection, fd).detach();
        }
    }
};

}  // namespace

int main(int argc, char** argv) {
    SdBus bus;
    return bench::main(argc, argv, bus);
}
