#include "faults/Cell.h"

#include <qvtp/message/QvtpMessage.h>

#include "faults/Exchange.h"
#include "support/Holdings.h"

#include <dirent.h>

#include <array>
#include <cstdio>
#include <cstdlib>

namespace qvtp_test::faults {

namespace {

constexpr int WARM_UPS = 4;
constexpr int REPETITIONS = 2;  // of a fault after which something is left
constexpr long MOST_FAILURES = 5;
constexpr int ENDS = 2;  // so many acts without a fault end a cell

/// What a process holds.
struct Held {
    int descriptors;
    int threads;
    long blocks;

    static Held now() {
        int threads = -2;
        DIR* const directory = ::opendir("/proc/self/task");
        while (directory != nullptr && ::readdir(directory) != nullptr) ++threads;
        if (directory != nullptr) ::closedir(directory);
        const int descriptors = openDescriptors();
        return {descriptors, threads, liveBlocks()};
    }
    bool isWithin(const Held& limit) const {
        return descriptors <= limit.descriptors && threads <= limit.threads && blocks <= limit.blocks;
    }
};

class CellRun {
  public:
    CellRun(const Cell& cell, Progress& progress)
        : cell_(cell), progress_(progress), scenario_(cell.entry.make()), plan_(cell.plan) {}

    void run() {
        scenario_->setUp();
        if (!cell_.entry.onceInAProcess) {
            for (int i = 0; i < WARM_UPS; ++i) {
                if (!actWithoutFaults()) return;
            }
            soon([] { return false; }, 20);  // what ends on other threads has ended
            baseline_ = Held::now();
        }
        int ends = 0;
        while (ends < ENDS && progress_.failures < MOST_FAILURES) {
            const bool failed = inject();
            ends = failed ? 0 : ends + 1;
            if (cell_.entry.onceInAProcess || cell_.plan.nth == 0) break;
            plan_.nth += cell_.stride;
        }
        progress_.steps++;
        scenario_->tearDown();
    }

  private:
    bool actWithoutFaults() {
        scenario_->prepare();
        const std::string outcome = scenario_->act();
        const std::string after = scenario_->afterwards();
        progress_.steps++;
        if (outcome == RIGHT && after == RIGHT) return true;
        report("without a fault: " + outcome + ", " + after);
        return false;
    }

    /// Whether there was such a fault.
    bool inject() {
        const bool failed = act();
        if (failed) progress_.injected++;
        if (cell_.entry.onceInAProcess || isClean()) return failed;
        if (scenario_->mayLeave(outcome_)) {
            baseline_ = Held::now();
            return failed;
        }
        // What is made once and kept is no leak: that grows each time.
        const Held first = Held::now();
        for (int i = 0; i < REPETITIONS; ++i) {
            const Held before = Held::now();
            act();
            if (soon([&] { return Held::now().isWithin(before); }, cell_.settlingMs)) {
                baseline_ = Held::now();
                return failed;
            }
        }
        const Held last = Held::now();
        report("leaves " + std::to_string((last.descriptors - first.descriptors) / REPETITIONS) + " descriptors, " +
               std::to_string((last.threads - first.threads) / REPETITIONS) + " threads, " +
               std::to_string((last.blocks - first.blocks) / REPETITIONS) + " blocks");
        baseline_ = last;
        return failed;
    }

    bool isClean() {
        return soon([this] { return Held::now().isWithin(baseline_); }, cell_.settlingMs);
    }

    bool act() {
        progress_.nth = plan_.nth;
        scenario_->prepare();
        begin(plan_);
        const std::string outcome = scenario_->act();
        end();
        outcome_ = outcome;
        const long failedCalls = failed();
        const bool wasDisturbed = disturbed() > 0;
        const std::string function = lastFailure();
        progress_.steps++;
        progress_.calls += failedCalls + disturbed();
        if (failedCalls > 0 ? !isStated(outcome) : outcome != RIGHT) report(function + ": " + outcome);
        const std::string after = scenario_->afterwards();
        if (after != RIGHT) report(function + ", then " + after + " (the act itself: " + outcome + ")");
        progress_.steps++;
        if (std::getenv("QVTP_FAULTS_TRACE") != nullptr) {
            std::fprintf(stderr, "%s, fault %ld: %s: %s\n", cell_.title().c_str(), plan_.nth, function.c_str(),
                         outcome.c_str());
        }
        return failedCalls > 0 || wasDisturbed;
    }

    void report(const std::string& what) {
        progress_.failures++;
        std::fprintf(stderr, "FOUND: %s, fault %ld: %s\n", cell_.title().c_str(), plan_.nth, what.c_str());
    }

    const Cell& cell_;
    Progress& progress_;
    std::unique_ptr<Scenario> scenario_;
    Plan plan_;
    std::string outcome_;
    Held baseline_{};
};

const char* nameOf(const Plan& plan) {
    if (plan.interrupt) return plan.singleBytes ? "interrupted and in single bytes" : "interrupted";
    if (plan.singleBytes) return "in single bytes";
    switch (plan.kind) {
        case Kind::ALLOCATION:
            return "allocations";
        case Kind::THREAD:
            return "thread starts";
        default:
            return "calls";
    }
}

}  // namespace

std::string Cell::title() const {
    std::string text = std::string(entry.name) + (entry.side == CLIENT ? " (client), " : " (server), ") + nameOf(plan);
    if (plan.nth > 0) {
        text += plan.extent == Extent::ONCE ? " once" : plan.extent == Extent::ALL ? " for ever" : " of one for ever";
        if (plan.kind == Kind::CALL) text += ", error " + std::to_string(plan.variant);
    }
    return text + (logged ? ", logged" : "");
}

void runCell(const Cell& cell, Progress& progress) {
    const char* const file = std::getenv("QVTP_FAULTS_LOG");
    std::FILE* const log = cell.logged ? std::fopen(file != nullptr ? file : "/dev/null", "w") : nullptr;
    if (log != nullptr) {
        QvtpMessage::setLoggingLevel(log, LoggingLevel::DEBUG, log, CommunicationLevel::both);
    }
    CellRun(cell, progress).run();
    QvtpMessage::setLoggingLevel(nullptr, LoggingLevel::OFF, nullptr, CommunicationLevel::OFF);
    if (log != nullptr) std::fclose(log);
    progress.done = true;
}

}  // namespace qvtp_test::faults
