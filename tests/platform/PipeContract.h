#pragma once

#include "common/Text.h"
#include "platform/BackEnd.h"
#include "platform/PipePlatform.h"
#include "platform/ServerPipePlatform.h"
#include "support/LogCapture.h"
#include "support/PipeName.h"
#include "support/Watchdog.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

namespace qvtp_test {

using namespace std::chrono_literals;
using Quovane::Io::INVALID_NATIVE_HANDLE;
using Quovane::Io::NativeHandle;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace platform = Quovane::Internal::Qvtp;
namespace ConnectResult = Quovane::Internal::Qvtp::ConnectResult;
namespace ReadResult = Quovane::Internal::Qvtp::ReadResult;
namespace WriteResult = Quovane::Internal::Qvtp::WriteResult;
namespace AcceptResult = Quovane::Internal::Qvtp::AcceptResult;

constexpr auto AT_ONCE = 1500ms;  // far below every time-out that could be meant instead, far above a busy machine

/// The two handles of one end, closed with it.
struct End {
    End() = default;
    End(End&& other) noexcept : pipe(other.pipe), event(other.event) { other.forget(); }
    End& operator=(End&& other) noexcept {
        std::swap(pipe, other.pipe);
        std::swap(event, other.event);
        return *this;
    }
    ~End() { close(); }

    void close() {
        if (pipe != INVALID_NATIVE_HANDLE) platform::platformClose(pipe, event);
        forget();
    }
    void forget() { pipe = event = INVALID_NATIVE_HANDLE; }
    bool isOpen() const { return pipe != INVALID_NATIVE_HANDLE; }

    NativeHandle pipe = INVALID_NATIVE_HANDLE;
    NativeHandle event = INVALID_NATIVE_HANDLE;
};

/// Verbs for one pipe name.
class PipeContract : public ::testing::Test {
  protected:
    static std::string pathOf(const std::string& name) { return platform::PIPE_PATH_PREFIX + name; }
    std::string path() const { return pathOf(name); }

    int create(End& end, bool readable = true, bool writable = true, bool first = true) {
        return createNamed(end, name, readable, writable, first);
    }
    int createNamed(End& end, const std::string& pipeName, bool readable = true, bool writable = true,
                    bool first = true) {
        return platform::platformCreateInstance(pathOf(pipeName), readable, writable, first, end.pipe, end.event);
    }
    int createNext(End& end) { return create(end, true, true, false); }

    int connect(End& end, int timeoutMs = 2000, bool readable = true, bool writable = true) {
        return connectNamed(end, name, timeoutMs, readable, writable);
    }
    int connectNamed(End& end, const std::string& pipeName, int timeoutMs, bool readable = true, bool writable = true) {
        return platform::platformConnect(pathOf(pipeName), readable, writable, timeoutMs, end.pipe, end.event);
    }

    int accept(const End& end, int timeoutMs = 5000) {
        return platform::platformAccept(end.pipe, end.event, timeoutMs);
    }

    std::future<int> acceptInBackground(const End& end, int timeoutMs = 0) {
        return std::async(std::launch::async, [this, &end, timeoutMs] { return accept(end, timeoutMs); });
    }

    /// `messages` becomes what the accept has logged.
    std::future<int> acceptInBackground(const End& end, const LogCapture& log, std::vector<std::string>& messages) {
        return std::async(std::launch::async, [&] {
            const int result = accept(end, 0);
            messages = log.messagesOfThisThread();
            return result;
        });
    }
    /// Waits until an accept in the background waits for a client.
    static bool eventuallyAccepts(const LogCapture& log) {
        return eventually([&] { return log.contains("DEBUG ServerQvPipe_acceptPipe error = 997"); });
    }

    /// A connected pair. `server` becomes the accepted end.
    void pair(End& server, End& client) {
        ASSERT_EQ(create(server), 0);
        ASSERT_EQ(connect(client), 0);
        ASSERT_EQ(accept(server), 0);
    }

    static int write(const End& end, const std::string& data) {
        return platform::platformWrite(end.pipe, end.event, data.data(), static_cast<int>(data.size()));
    }

    static int read(const End& end, std::string& data, int length = 100, int timeoutMs = 2000) {
        std::vector<char> buffer(static_cast<std::size_t>(length) + 1);
        const int count = platform::platformRead(end.pipe, end.event, buffer.data(), length, timeoutMs);
        data.assign(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
        return count;
    }

    /// Waits for input and takes nothing.
    static int awaitInput(NativeHandle pipe, NativeHandle event, int timeoutMs) {
        int taken = 0;
        return platform::platformTakeInput(pipe, event, nullptr, 0, timeoutMs, true, taken);
    }

    /// What the next read gives: the bytes, or its result.
    static std::string readText(const End& end, int length = 100) {
        std::string data;
        const int count = read(end, data, length);
        return count > 0 ? data : std::to_string(count);
    }

    /// Reads until `size` bytes have come.
    static std::string readAll(const End& end, std::size_t size) {
        std::string all;
        std::string data;
        while (all.size() < size && read(end, data, 65536) > 0) all += data;
        return all;
    }

    std::string name = uniquePipeName();
};

}  // namespace qvtp_test
