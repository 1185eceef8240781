#include "faults/Exchange.h"

#include <qvtp/io/QvPipe.h>
#include <qvtp/io/ServerQvPipe.h>
#include <qvtp/io/TimeoutException.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace qvtp_test::faults {

namespace {

using Quovane::Io::QvPipe;
using Quovane::Io::ServerQvPipe;

/// Pipes without the protocol, both ends on this thread. Their calls are all counted.
class Pipes : public Scenario {
  public:
    std::string act() override {
        std::string result = RIGHT;
        const std::string thrown = thrownBy([&] {
            const Working working(SERVER);
            result = use();
        });
        return thrown == "nothing" ? result : thrown;
    }
    std::string afterwards() override {
        const std::string again = act();
        return again == RIGHT ? RIGHT : "the next: " + again;
    }

  protected:
    virtual std::string use() = 0;

    static const char* exchange(QvPipe& from, QvPipe& to) {
        from.writePipe("abc", 0, 3);
        char data[3];
        int filled = 0;
        while (filled < 3) {
            const int count = to.readPipe(data, filled, 3 - filled, 5000);
            if (count <= 0) return "WRONG end";
            filled += count;
        }
        return std::memcmp(data, "abc", 3) == 0 ? "right" : "WRONG bytes";
    }

    const std::string name_ = uniquePipeName("faults");
};

/// Created, connected, accepted with the next instance, twice, and closed.
class AcceptAndNextInstance : public Pipes {
  protected:
    std::string use() override {
        ServerQvPipe server(name_, true, true);
        server.setAcceptTimeout(5000);
        for (int i = 0; i < 2; ++i) {
            QvPipe client;
            client.setConnectTimeout(2000);
            client.bind(name_, true, true);
            client.connect();
            QvPipe accepted;
            server.accept(accepted);
            const char* there = exchange(client, accepted);
            const char* back = exchange(accepted, client);
            if (std::strcmp(there, "right") != 0) return there;
            if (std::strcmp(back, "right") != 0) return back;
        }
        return RIGHT;
    }
};

/// An accept that fails is made again: the server pipe has lost nothing.
class AcceptAgain : public Pipes {
  public:
    void setUp() override {
        server_ = std::make_unique<ServerQvPipe>(name_, true, true);
        server_->setAcceptTimeout(5000);
    }
    void prepare() override { client_ = std::make_unique<QvPipe>(name_, true, true); }
    /// The client that came meanwhile, and the next one. The first connection stays open until then: a server pipe that
    /// could make no other instance has its name by that.
    std::string afterwards() override {
        std::string result = RIGHT;
        const std::string thrown = thrownBy([&] {
            if (!accepted_->isBound()) server_->accept(*accepted_);
            result = exchange(*client_, *accepted_);
            makeNextInstance();
            QvPipe client(name_, true, true);
            QvPipe accepted;
            server_->accept(accepted);
            if (result == RIGHT) result = exchange(client, accepted);
        });
        client_.reset();
        accepted_.reset();
        if (thrown != "nothing") return "the next accept: " + thrown;
        return result;
    }
    void tearDown() override { server_.reset(); }

  protected:
    std::string use() override {
        {
            const Working none(NEITHER);
            accepted_ = std::make_unique<QvPipe>();
        }
        server_->accept(*accepted_);
        return exchange(*client_, *accepted_);
    }

  private:
    /// What an accept does first, if there is none.
    void makeNextInstance() {
        QvPipe none;
        server_->setAcceptTimeout(1);
        const std::string thrown = thrownBy([&] { server_->accept(none); });
        server_->setAcceptTimeout(5000);
        if (none.isBound()) throw std::runtime_error("there is a client that nobody has made");
    }

    std::unique_ptr<ServerQvPipe> server_;
    std::unique_ptr<QvPipe> client_;
    std::unique_ptr<QvPipe> accepted_;
};

/// An accept finds that the files of its name are gone. What fails then is tried again by the next one.
class FilesRemoved : public Pipes {
  public:
    void prepare() override {
        server_ = std::make_unique<ServerQvPipe>(name_, true, true);
        server_->setAcceptTimeout(5);
        for (const char* ending : {".sock", ".lock"}) {
            std::remove((std::string(std::getenv("QVTP_PIPE_DIR")) + "/" + name_ + ending).c_str());
        }
    }
    std::string afterwards() override {
        std::string result;
        const std::string thrown = thrownBy([&] {
            QvPipe none;
            if (acceptedNobody(none) != RIGHT) throw std::runtime_error("there is a client that nobody has made");
            QvPipe client(name_, true, true);
            QvPipe accepted;
            server_->accept(accepted);
            result = exchange(client, accepted);
        });
        server_.reset();
        return thrown == "nothing" ? result : "the next accept: " + thrown;
    }

  protected:
    std::string use() override {
        QvPipe none;
        return acceptedNobody(none);
    }

  private:
    std::string acceptedNobody(QvPipe& pipe) {
        try {
            server_->accept(pipe);
        } catch (const Quovane::Io::TimeoutException&) {
            return RIGHT;
        }
        return "WRONG client";
    }

    std::unique_ptr<ServerQvPipe> server_;
};

/// Each wait of a pipe ends in time.
class PipeTimeOuts : public Pipes {
  protected:
    std::string use() override {
        ServerQvPipe server(name_, true, true);
        server.setAcceptTimeout(10);
        QvPipe none;
        std::string result = timesOut([&] { server.accept(none); }, "TimeoutException: QvPipe accept timeout");
        if (result != RIGHT) return result;
        QvPipe first(name_, true, true);
        QvPipe second;
        second.setConnectTimeout(10);
        second.bind(name_, true, true);
        result = timesOut([&] { second.connect(); }, "TimeoutException: Timed out connecting to pipe");
        if (result != RIGHT) return result;
        char byte = 0;
        return timesOut([&] { first.readPipe(&byte, 0, 1, 10); }, "TimeoutException: QvPipe read timeout.");
    }

  private:
    template <typename Action>
    static std::string timesOut(const Action& action, const char* expected) {
        const auto before = std::chrono::steady_clock::now();
        std::string thrown;
        {
            const Working working(SERVER);
            thrown = thrownWithoutFaults(action);
        }
        const auto took = std::chrono::steady_clock::now() - before;
        if (took > std::chrono::seconds(5)) return "WRONG: it took seconds";
        // A wait that fails is the end of what is read.
        if (thrown == "nothing") return "end of stream";
        return thrown == expected ? RIGHT : thrown;
    }

    /// The text of an exception takes memory.
    template <typename Action>
    static std::string thrownWithoutFaults(const Action& action) {
        const Working none(NEITHER);
        return thrownBy([&] {
            const Working working(SERVER);
            action();
        });
    }
};

template <typename Kind>
std::unique_ptr<Scenario> make() {
    return std::make_unique<Kind>();
}

}  // namespace

std::vector<Entry> pipeScenarios() {
    return {
        {"accept and next instance", SERVER, make<AcceptAndNextInstance>, 1},
        {"accept again", SERVER, make<AcceptAgain>, 1},
        {"files removed", SERVER, make<FilesRemoved>, 4},
        {"time-outs of pipes", SERVER, make<PipeTimeOuts>, 4},
    };
}

}  // namespace qvtp_test::faults
