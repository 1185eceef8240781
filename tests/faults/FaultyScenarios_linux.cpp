// What the machine has to find. Each of these has one fault of the kind that it looks for.

#include "faults/Exchange.h"

#include <fcntl.h>

#include <cstdlib>
#include <exception>

namespace qvtp_test::faults {

namespace {

/// Allocates twice on its side.
class Allocating : public Scenario {
  public:
    std::string act() override {
        const Working working(CLIENT);
        void* const first = std::malloc(10);
        void* const second = std::malloc(10);
        const bool failed = first == nullptr || second == nullptr;
        if (failed) {
            fail(first);
        } else {
            std::free(first);
        }
        std::free(second);
        return failed ? outcome() : RIGHT;
    }
    std::string afterwards() override { return RIGHT; }

  protected:
    virtual void fail(void* first) { std::free(first); }
    virtual std::string outcome() { return "std::exception: std::bad_alloc"; }
};

class Leaking : public Allocating {
    void fail(void*) override {}
};

class LeakingADescriptor : public Allocating {
    void fail(void* first) override {
        std::free(first);
        static_cast<void>(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    }
};

class LeakingAThread : public Allocating {
  public:
    /// As long as it does not end, the thread is there.
    ~LeakingAThread() override { ended_ = true; }

  private:
    void fail(void* first) override {
        std::free(first);
        std::thread([] {
            while (!ended_) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }).detach();
    }
    static inline std::atomic<bool> ended_{false};
};

class Unstated : public Allocating {
    std::string outcome() override { return "something else"; }
};

class Wrong : public Allocating {
    std::string outcome() override { return "WRONG body"; }
};

class Terminating : public Allocating {
    void fail(void*) override { std::terminate(); }
};

class Hanging : public Allocating {
    void fail(void*) override {
        for (;;) std::this_thread::sleep_for(std::chrono::seconds(1));
    }
};

class BrokenAfterwards : public Allocating {
  public:
    std::string afterwards() override { return broken_ ? "the next: broken" : RIGHT; }

  private:
    void fail(void* first) override {
        broken_ = true;
        std::free(first);
    }
    bool broken_ = false;
};

template <typename Kind>
std::unique_ptr<Scenario> make() {
    return std::make_unique<Kind>();
}

}  // namespace

std::vector<Entry> faultyScenarios() {
    return {
        {"faultless", CLIENT, make<Allocating>, 1},
        {"leaks a block", CLIENT, make<Leaking>, 1},
        {"leaks a descriptor", CLIENT, make<LeakingADescriptor>, 1},
        {"leaks a thread", CLIENT, make<LeakingAThread>, 1},
        {"an outcome that is not stated", CLIENT, make<Unstated>, 1},
        {"a wrong result", CLIENT, make<Wrong>, 1},
        {"terminates", CLIENT, make<Terminating>, 1},
        {"hangs", CLIENT, make<Hanging>, 1},
        {"is broken afterwards", CLIENT, make<BrokenAfterwards>, 1},
    };
}

}  // namespace qvtp_test::faults
