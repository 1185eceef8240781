// Lets every allocation, thread start and call of the system fail in turn while the library works.
//
//     fault_loops --self-test | [--quick] [--jobs N] [--only WORD]...
//
// --only runs what has all of the words in its title. With QVTP_FAULTS_TRACE in the environment each act is printed,
// with QVTP_FAULTS_STACKS the stacks of what hangs (by gdb), and QVTP_FAULTS_LOG is a file that gets the log.
//
// Ends with the number of faults that were injected into each scenario, and with 1 if anything was found.

#include "faults/Cell.h"

#include <execinfo.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <new>
#include <string>
#include <thread>
#include <vector>

namespace qvtp_test::faults {

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
    bool quick = false;
    bool selfTest = false;
    std::size_t jobs = 2;
    std::vector<std::string> only;
};

constexpr std::chrono::seconds HANG{20};
constexpr std::chrono::seconds HANG_OF_SELF_TEST{2};
constexpr int SETTLING_OF_SELF_TEST_MS = 100;
constexpr int CRASHES = 5;  // of one cell, until it is given up
constexpr int VARIANTS = 3;
constexpr int SHORTAGE_MS = 250;

/// A cell in a process of its own.
class Job {
  public:
    Job(Cell cell, std::chrono::seconds patience) : cell_(std::move(cell)), patience_(patience) {
        void* const page = ::mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (page == MAP_FAILED) std::abort();
        progress_ = new (page) Progress{};
        start();
    }
    ~Job() { ::munmap(progress_, sizeof(Progress)); }
    Job(const Job&) = delete;
    Job& operator=(const Job&) = delete;

    const Cell& cell() const { return cell_; }
    const Progress& progress() const { return *progress_; }
    Clock::time_point began() const { return began_; }

    /// Whether it has ended. A child that crashed or hung is followed by one that goes on after its last fault.
    bool hasEnded() {
        int status = 0;
        if (::waitpid(child_, &status, WNOHANG) == 0) {
            endIfHung();
            return false;
        }
        if (!progress_->done) {
            report(hung_ ? "hangs" : "ends with status " + std::to_string(status));
            return !goOn();
        }
        if (!cell_.entry.onceInAProcess) return true;
        // Each fault has a process of its own: the next one, until there is no such fault.
        const bool failed = progress_->injected > injectedBefore_;
        injectedBefore_ = progress_->injected;
        if (!failed || progress_->failures >= CRASHES) return true;
        return !goOn();
    }

  private:
    void start() {
        steps_ = progress_->steps;
        moved_ = Clock::now();
        hung_ = false;
        progress_->done = false;
        std::fflush(nullptr);
        child_ = ::fork();
        if (child_ != 0) return;
        ::alarm(3600);
        runCell(cell_, *progress_);
        ::_exit(0);
    }

    bool goOn() {
        if (progress_->failures >= CRASHES || cell_.plan.nth == 0) return false;
        cell_.plan.nth = std::max(progress_->nth.load(), cell_.plan.nth) + cell_.stride;
        start();
        return true;
    }

    void report(const std::string& what) {
        progress_->failures++;
        std::fprintf(stderr, "FOUND: %s, fault %ld: %s\n", cell_.title().c_str(), progress_->nth.load(), what.c_str());
    }

    void endIfHung() {
        if (steps_ != progress_->steps) {
            steps_ = progress_->steps;
            moved_ = Clock::now();
        } else if (!hung_ && Clock::now() - moved_ > patience_) {
            hung_ = true;
            if (std::getenv("QVTP_FAULTS_STACKS") != nullptr) {
                const std::string command =
                    "gdb -batch -p " + std::to_string(child_) + " -ex 'thread apply all bt' >&2";
                static_cast<void>(std::system(command.c_str()));
            }
            ::kill(child_, SIGABRT);
        }
    }

    Cell cell_;
    std::chrono::seconds patience_;
    Progress* progress_;
    pid_t child_ = -1;
    long steps_ = 0;
    long injectedBefore_ = 0;
    Clock::time_point moved_;
    const Clock::time_point began_ = Clock::now();
    bool hung_ = false;
};

struct Sum {
    long injected = 0;
    long calls = 0;
    long failures = 0;
    double seconds = 0;
};

/// By scenario, then by what failed.
using Sums = std::map<std::string, Sum>;

std::string keyOf(const Cell& cell) {
    std::string key = cell.title();
    const std::size_t variant = key.find(", error ");
    if (variant != std::string::npos) key.erase(variant, std::strlen(", error 0"));
    return key;
}

Sums run(const std::vector<Cell>& cells, std::size_t jobs, std::chrono::seconds patience) {
    Sums sums;
    std::vector<std::unique_ptr<Job>> running;
    auto next = cells.begin();
    while (next != cells.end() || !running.empty()) {
        while (next != cells.end() && running.size() < jobs)
            running.push_back(std::make_unique<Job>(*next++, patience));
        for (auto job = running.begin(); job != running.end();) {
            if (!(*job)->hasEnded()) {
                ++job;
                continue;
            }
            Sum& sum = sums[keyOf((*job)->cell())];
            sum.injected += (*job)->progress().injected;
            sum.calls += (*job)->progress().calls;
            sum.failures += (*job)->progress().failures;
            sum.seconds += std::chrono::duration<double>(Clock::now() - (*job)->began()).count();
            job = running.erase(job);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return sums;
}

// ---- What there is to run ----

class Plans {
  public:
    explicit Plans(const Options& options) : options_(options) {}

    void add(const Entry& entry) {
        for (const bool logged : {false, true}) {
            for (const Extent extent : {Extent::ONCE, Extent::ALL}) {
                addFaults(entry, Kind::ALLOCATION, extent, 0, logged);
                addFaults(entry, Kind::THREAD, extent, 0, logged);
            }
            for (int variant = 0; variant < VARIANTS; ++variant) {
                for (const Extent extent : {Extent::ONCE, Extent::SAME_FUNCTION, Extent::ALL}) {
                    addFaults(entry, Kind::CALL, extent, variant, logged);
                }
            }
            addDisturbance(entry, true, false, logged);
            addDisturbance(entry, false, true, logged);
            addDisturbance(entry, true, true, logged);
        }
    }

    std::vector<Cell> cells;

  private:
    void addFaults(const Entry& entry, Kind kind, Extent extent, int variant, bool logged) {
        const bool unlikely = logged || variant != 0 || extent == Extent::SAME_FUNCTION;
        if (options_.quick && kind == Kind::CALL && unlikely) return;
        if (options_.quick && logged && extent == Extent::ALL) return;
        Plan plan;
        plan.kind = kind;
        plan.extent = extent;
        plan.sides = entry.side;
        plan.variant = variant;
        // Some things are tried again until they succeed: clients wait for a server without memory, and a request is
        // sent again as often as its connection breaks. What fails for ever ends after a while, and then they have to.
        if (extent != Extent::ONCE) plan.lastingMs = SHORTAGE_MS;
        const int factor = !options_.quick || kind == Kind::THREAD ? 1 : logged ? 4 : 1;
        addCell({entry, plan, logged,
                 kind == Kind::THREAD ? 1
                 : options_.quick     ? entry.quickStride * factor
                                      : entry.stride});
    }

    void addDisturbance(const Entry& entry, bool interrupt, bool singleBytes, bool logged) {
        if (entry.onceInAProcess || (options_.quick && (logged || (interrupt && singleBytes)))) return;
        Plan plan;
        plan.kind = Kind::CALL;
        plan.nth = 0;
        plan.sides = CLIENT | SERVER;
        plan.interrupt = interrupt;
        plan.singleBytes = singleBytes;
        addCell({entry, plan, logged, 1});
    }

    void addCell(const Cell& cell) {
        const std::string title = cell.title();
        const auto isIn = [&](const std::string& word) { return title.find(word) != std::string::npos; };
        if (std::all_of(options_.only.begin(), options_.only.end(), isIn)) cells.push_back(cell);
    }

    const Options& options_;
};

std::vector<Cell> allCells(const Options& options) {
    Plans plans(options);
    for (const auto& entries : {clientScenarios(), serverScenarios(), pipeScenarios(), configScenarios()}) {
        for (const Entry& entry : entries) plans.add(entry);
    }
    return plans.cells;
}

int print(const Sums& sums, Clock::time_point began) {
    Sum all;
    std::printf("%-72s %8s %9s %7s %6s\n", "scenario, what failed", "faults", "calls", "seconds", "found");
    for (const auto& [title, sum] : sums) {
        std::printf("%-72s %8ld %9ld %7.1f %6ld\n", title.c_str(), sum.injected, sum.calls, sum.seconds, sum.failures);
        all.injected += sum.injected;
        all.calls += sum.calls;
        all.failures += sum.failures;
    }
    const auto took = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - began).count();
    std::printf("%ld faults injected (%ld calls failed or were disturbed) in %lld s: %ld found\n", all.injected,
                all.calls, static_cast<long long>(took), all.failures);
    return all.failures == 0 && all.injected > 0 ? 0 : 1;
}

/// Every faulty scenario has to be found, and the faultless one not.
int selfTest() {
    int missed = 0;
    for (const Entry& entry : faultyScenarios()) {
        Plan plan;
        plan.sides = entry.side;
        const Sums sums = run({{entry, plan, false, 1, SETTLING_OF_SELF_TEST_MS}}, 1, HANG_OF_SELF_TEST);
        const Sum& sum = sums.begin()->second;
        const bool expected = std::strcmp(entry.name, "faultless") != 0;
        const bool right = sum.injected + sum.failures >= 2 && (sum.failures > 0) == expected;
        std::printf("%-40s %s\n", entry.name, right ? "as it has to be" : "MISSED");
        if (!right) ++missed;
    }
    return missed == 0 ? 0 : 1;
}

void printTrace(int signal) {
    void* frames[40];
    ::backtrace_symbols_fd(frames, ::backtrace(frames, 40), STDERR_FILENO);
    std::signal(signal, SIG_DFL);
    std::raise(signal);
}

Options parse(int argc, char** argv) {
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument == "--quick") {
            options.quick = true;
        } else if (argument == "--self-test") {
            options.selfTest = true;
        } else if (argument == "--jobs" && i + 1 < argc) {
            options.jobs = static_cast<std::size_t>(std::max(std::atoi(argv[++i]), 1));
        } else if (argument == "--only" && i + 1 < argc) {
            options.only.emplace_back(argv[++i]);
        } else {
            std::fprintf(stderr, "fault_loops: what is %s?\n", argument.c_str());
            std::exit(2);
        }
    }
    return options;
}

int runAll(const Options& options) {
    const auto began = Clock::now();
    return options.selfTest ? selfTest() : print(run(allCells(options), options.jobs, HANG), began);
}

}  // namespace
}  // namespace qvtp_test::faults

int main(int argc, char** argv) {
    using namespace qvtp_test::faults;
    const Options options = parse(argc, argv);
    const std::filesystem::path directory =
        std::filesystem::temp_directory_path() / ("qvtp-faults-" + std::to_string(::getpid()));
    std::filesystem::create_directories(directory);
    ::setenv("QVTP_PIPE_DIR", (directory / "pipes").c_str(), 1);
    const std::string file = directory / "QvtpConfig.xml";
    std::ofstream(file) << "<config><QvtpClient function=\"billing\" component=\"frontend\" connect_timeout=\"4321\" "
                           "stale_timeout=\"4322\"/></config>\n";
    ::setenv("QvtpConfigurationFile", file.c_str(), 1);
    void* frame[1];
    ::backtrace(frame, 1);  // loads what it needs
    if (!options.selfTest) {
        std::signal(SIGABRT, printTrace);
        std::signal(SIGSEGV, printTrace);
    }
    const int result = runAll(options);
    std::filesystem::remove_all(directory);
    return result;
}
