#include "platform/BackEnd.h"

#include "platform/PipePlatform.h"
#include "support/PipeName.h"

#include <windows.h>

#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>

// Where a system that only resembles Windows falls short of it, the answer is what a probe finds at run time, made with
// the bare calls of the system.
namespace qvtp_test::backend {

namespace {

const std::string PREFIX = Quovane::Internal::Qvtp::PIPE_PATH_PREFIX;

std::string probePath() {
    return PREFIX + uniquePipeName("probe");
}

/// A handle that is closed with its owner.
class Handle {
  public:
    explicit Handle(HANDLE handle) : handle_(handle) {}
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ~Handle() { close(); }

    bool isOpen() const { return handle_ != INVALID_HANDLE_VALUE; }
    void close() {
        if (isOpen()) ::CloseHandle(handle_);
        handle_ = INVALID_HANDLE_VALUE;
    }

  private:
    HANDLE handle_;
};

HANDLE createInstance(const std::string& path, DWORD mode) {
    return ::CreateNamedPipeA(path.c_str(), mode | FILE_FLAG_OVERLAPPED, 0, 255, 65536, 65536, 0, nullptr);
}

HANDLE open(const std::string& path, DWORD access) {
    return ::CreateFileA(path.c_str(), access, 0, nullptr, OPEN_EXISTING, FILE_FLAG_OVERLAPPED, nullptr);
}

/// A probe that cannot be made says nothing about the system, and must not pass for a gap of it.
void require(const Handle& handle) {
    if (!handle.isOpen())
        throw std::runtime_error("a probe could not make its pipe: " + std::to_string(::GetLastError()));
}

bool probeFirstInstance() {
    const std::string path = probePath();
    const Handle first(createInstance(path, PIPE_ACCESS_DUPLEX | FILE_FLAG_FIRST_PIPE_INSTANCE));
    require(first);
    const Handle second(createInstance(path, PIPE_ACCESS_DUPLEX | FILE_FLAG_FIRST_PIPE_INSTANCE));
    return !second.isOpen() && ::GetLastError() == ERROR_ACCESS_DENIED;
}

bool probeDirectionWhenBusy() {
    const std::string path = probePath();
    const Handle server(createInstance(path, PIPE_ACCESS_INBOUND));
    require(server);
    const Handle client(open(path, GENERIC_WRITE));
    require(client);
    const Handle wrong(open(path, GENERIC_READ));
    return !wrong.isOpen() && ::GetLastError() == ERROR_ACCESS_DENIED;
}

/// Whether a wait that has begun well before the close ends well before its time-out.
bool probeRelease() {
    using namespace std::chrono_literals;
    using Clock = std::chrono::steady_clock;
    const std::string path = probePath();
    Handle server(createInstance(path, PIPE_ACCESS_DUPLEX));
    require(server);
    const Handle client(open(path, GENERIC_READ | GENERIC_WRITE));
    require(client);
    std::promise<void> begins;
    Clock::time_point end;
    std::thread waiter([&] {
        begins.set_value();
        ::WaitNamedPipeA(path.c_str(), 2000);
        end = Clock::now();
    });
    begins.get_future().wait();
    std::this_thread::sleep_for(300ms);
    const auto closed = Clock::now();
    server.close();
    waiter.join();
    if (end < closed) throw std::runtime_error("a probe's wait ended before the close");
    return end - closed < 1000ms;
}

}  // namespace

bool refusesSecondFirstInstance() {
    static const bool answer = probeFirstInstance();
    return answer;
}

bool refusesWrongDirectionWhenBusy() {
    static const bool answer = probeDirectionWhenBusy();
    return answer;
}

bool releasesWaitersOnClose() {
    static const bool answer = probeRelease();
    return answer;
}

bool freesPlaceOnAccept() {
    return false;
}

bool buffersMoreThanAPipe() {
    return false;
}

bool renewsWriteTimeOnProgress() {
    return false;
}

bool deliversTimedOutWrites() {
    return true;
}

bool closesHalfOfAPipe() {
    return false;
}

bool knowsDirectionOfWaits() {
    return false;
}

bool showsWaitingClients() {
    return false;
}

bool needsMemoryToTransfer() {
    return true;
}

bool keepsNamesAsTheyAre() {
    return false;
}

int tooLongName() {
    return MAX_PATH;
}

int longNameOpenError() {
    // Wine looks for a pipe of that name and finds none; Windows says that the name is too long.
    const std::string tooLong(static_cast<std::size_t>(tooLongName()), 'n');
    static const bool opened = Handle(open(PREFIX + tooLong, GENERIC_READ)).isOpen();
    static const DWORD error = opened ? 0 : ::GetLastError();
    return static_cast<int>(error);
}

int emptyNameError() {
    // ERROR_INVALID_NAME, or ERROR_INVALID_HANDLE under Wine.
    static const bool created = Handle(createInstance(PREFIX, PIPE_ACCESS_DUPLEX)).isOpen();
    static const DWORD error = created ? 0 : ::GetLastError();
    return static_cast<int>(error);
}

bool opensTheEmptyName() {
    return true;
}

std::int64_t ownUserId() {
    return -1;
}

std::int64_t ownGroupId() {
    return -1;
}

}  // namespace qvtp_test::backend
