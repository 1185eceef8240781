#include "faults/Exchange.h"

namespace qvtp_test::faults {

namespace {

constexpr std::size_t SMALL = 5;
constexpr std::size_t MEDIUM = 5000;
constexpr std::size_t LARGE = 150000;
constexpr int DESCRIPTORS_OF_CLIENT = 2;  // of a connection
const std::string WHOLE = "/whole";

/// Exchanges with a server that is there all the while. Faults are the client's or the server's.
class Exchange : public Scenario {
  public:
    void setUp() override {
        server_.construct(accessMode());
        server_.start();
        server_.waitUntilItRuns();
    }
    void prepare() override {
        client_ = newClient();
        wrongBefore_ = server_.handler.wrong;
    }
    std::string act() override { return exchange(); }
    /// The same client, and one that is new.
    std::string afterwards() override {
        const std::string again = onceServed([this] { return exchange(); });
        client_ = newClient();
        const std::string fresh = onceServed([this] { return exchange(); });
        client_.reset();
        if (again != RIGHT) return "the next exchange of this client: " + again;
        if (fresh != RIGHT) return "the next client's exchange: " + fresh;
        return server_.handler.wrong == wrongBefore_ ? RIGHT : "the handler read a wrong body";
    }
    void tearDown() override { server_.stop(); }

  protected:
    virtual std::string exchange() = 0;

    virtual int accessMode() const { return 1; }

    EchoServer server_;
    std::unique_ptr<QvtpClient> client_;
    int wrongBefore_ = 0;
};

template <std::size_t SIZE>
class PostWhole : public Exchange {
  protected:
    std::string exchange() override { return postWhole(*client_, server_.name, WHOLE, SIZE); }
};

/// With an idle pipe in the pool.
class PostOnAPooledPipe : public PostWhole<MEDIUM> {
  public:
    void prepare() override {
        PostWhole::prepare();
        exchange();
    }
};

class PostStream : public Exchange {
  protected:
    std::string exchange() override { return postStream(*client_, server_.name, LARGE); }
};

/// Each is handled once at most, and exactly once when nothing fails.
class Notify : public Exchange {
  public:
    void prepare() override {
        Exchange::prepare();
        // One of a round before may still be on its way. It has another size.
        size_ = MEDIUM + ++round_ % SIZES;
        server_.handler.notifiedSize = size_;
        handledBefore_ = server_.handler.notified;
        descriptorsBefore_ = openDescriptors();
    }
    std::string afterwards() override {
        const auto handled = [this] { return server_.handler.notified - handledBefore_; };
        // One that was not handled was on a connection that the server has given up. What is written to it before the
        // server has closed it is lost: a NOTIFY has no answer that could say so. The descriptors of the client's end
        // are all that stay.
        soon([&] { return handled() >= 1 || openDescriptors() <= descriptorsBefore_ + DESCRIPTORS_OF_CLIENT; });
        const std::string result = Exchange::afterwards();
        if (result != RIGHT) return result;
        // Two are certain. The third, that of the fault, may be lost, or on its way.
        soon([&] { return handled() >= 3; }, 20);
        if (!soon([&] { return handled() >= 2; })) return "a NOTIFY was lost after the fault";
        return handled() <= 3 ? RIGHT : "a NOTIFY was handled twice";
    }

  protected:
    std::string exchange() override { return notify(*client_, server_.name, size_); }
    int accessMode() const override { return 0; }

  private:
    static constexpr std::size_t SIZES = 1000;

    std::size_t round_ = 0;
    std::size_t size_ = MEDIUM;
    int handledBefore_ = 0;
    int descriptorsBefore_ = 0;
};

/// The pooled pipe is one that the server has closed: the request is sent again on a new one.
class Resend : public Exchange {
  public:
    void setUp() override {
        Exchange::setUp();
        Exchange::prepare();
        exchange();
        client_.reset();
        soon([] { return false; }, 50);  // until the server has closed its end
        descriptors_ = openDescriptors();
    }
    void prepare() override {
        Exchange::prepare();
        postWhole(*client_, server_.name, "/close", SMALL);
        // Those of the client's end are all that stay.
        soon([this] { return openDescriptors() <= descriptors_ + DESCRIPTORS_OF_CLIENT; });
    }

  protected:
    std::string exchange() override { return postWhole(*client_, server_.name, WHOLE, MEDIUM); }

  private:
    int descriptors_ = 0;
};

template <typename Kind>
std::unique_ptr<Scenario> make() {
    return std::make_unique<Kind>();
}

}  // namespace

std::vector<Entry> clientScenarios() {
    std::vector<Entry> entries;
    for (const unsigned side : {CLIENT, SERVER}) {
        entries.push_back({"POST of nothing", side, make<PostWhole<0>>, 9});
        entries.push_back({"POST whole", side, make<PostWhole<MEDIUM>>, 4});
        entries.push_back({"POST large", side, make<PostWhole<LARGE>>, 12});
        entries.push_back({"POST on a pooled pipe", side, make<PostOnAPooledPipe>, 5});
        entries.push_back({"POST stream both ways", side, make<PostStream>, 8});
        entries.push_back({"NOTIFY", side, make<Notify>, 4});
        entries.push_back({"resend on a stale pipe", side, make<Resend>, 6});
    }
    return entries;
}

}  // namespace qvtp_test::faults
