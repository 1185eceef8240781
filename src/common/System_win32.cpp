#include "common/System.h"

#include <sys/stat.h>
#include <sys/timeb.h>
#include <windows.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <new>

namespace Quovane::Internal::Qvtp::System {

namespace {

/// Empty if the text is empty or no UTF-8.
std::wstring wide(const std::string& utf8) {
    const int size = static_cast<int>(utf8.size());
    const int wideSize = ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), size, nullptr, 0);
    std::wstring result(static_cast<std::size_t>(std::max(wideSize, 0)), L'\0');
    ::MultiByteToWideChar(CP_UTF8, MB_ERR_INVALID_CHARS, utf8.data(), size, result.data(), wideSize);
    return result;
}

std::string utf8(const std::wstring& text) {
    const int size = static_cast<int>(text.size());
    const int byteCount = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), size, nullptr, 0, nullptr, nullptr);
    std::string result(static_cast<std::size_t>(std::max(byteCount, 0)), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), size, result.data(), byteCount, nullptr, nullptr);
    return result;
}

/// The slot of the threads' texts. Not thread_local: with the compiler's emulated thread storage the memory of an
/// object can be freed before its destructor runs.
class TextSlot {
  public:
    TextSlot() : index_(::FlsAlloc(free)) {}
    /// Frees the texts of all threads: none may come back to this library's code once it is unloaded.
    ~TextSlot() {
        const DWORD index = index_.exchange(FLS_OUT_OF_INDEXES);
        if (index != FLS_OUT_OF_INDEXES) ::FlsFree(index);
    }
    TextSlot(const TextSlot&) = delete;
    TextSlot& operator=(const TextSlot&) = delete;

    /// Null if the thread has none yet.
    std::string* text() const {
        const DWORD index = index_;
        return index != FLS_OUT_OF_INDEXES ? static_cast<std::string*>(::FlsGetValue(index)) : nullptr;
    }

    void set(const std::string& value) {
        if (std::string* const present = text()) {
            *present = value;
            return;
        }
        const DWORD index = index_;
        if (index == FLS_OUT_OF_INDEXES) return;
        auto added = std::make_unique<std::string>(value);
        if (::FlsSetValue(index, added.get())) static_cast<void>(added.release());
    }

  private:
    static void WINAPI free(void* text) { delete static_cast<std::string*>(text); }

    std::atomic<DWORD> index_;
};

TextSlot& textSlot() {
    static TextSlot slot;
    return slot;
}

}  // namespace

std::int64_t wallClockMs() {
    struct __timeb64 now {};
    ::_ftime64(&now);
    return static_cast<std::int64_t>(now.time) * 1000 + now.millitm;
}

std::int64_t monotonicMs() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::uint32_t currentThreadId() {
    return ::GetCurrentThreadId();
}

const void* currentThreadMark() {
    return reinterpret_cast<const void*>(static_cast<std::uintptr_t>(::GetCurrentThreadId()));  // not a call
}

std::uint32_t currentProcessId() {
    return ::GetCurrentProcessId();
}

void sleepMs(int milliseconds) {
    ::Sleep(static_cast<DWORD>(std::max(milliseconds, 0)));
}

std::optional<std::string> environmentVariable(const char* name) {
    // The runtime's getenv gives the value in the system's code page.
    const std::wstring wideName = wide(name);
    std::wstring value;
    DWORD size = ::GetEnvironmentVariableW(wideName.c_str(), nullptr, 0);
    if (size == 0) return std::nullopt;
    while (size > value.size()) {  // another thread may make it longer meanwhile
        value.resize(size);
        size = ::GetEnvironmentVariableW(wideName.c_str(), value.data(), size);
    }
    value.resize(size);
    return utf8(value);
}

bool fileExists(const std::string& path) {
    // The narrow call would take the path in the system's code page.
    struct _stat64 status {};
    return ::_wstat64(wide(path).c_str(), &status) == 0;
}

File openFile(const std::string& path) {
    return File(::_wfopen(wide(path).c_str(), L"rb"));
}

File openFileToAppend(const std::string& path) {
    return File(::_wfopen(wide(path).c_str(), L"abN"));
}

bool hasMoreRightsThanItsUser() {
    return false;
}

std::tm utcTime(std::time_t seconds) {
    std::tm result{};
    const __time64_t time = seconds;
    ::_gmtime64_s(&result, &time);
    return result;
}

std::tm localTime(std::time_t seconds) {
    std::tm result{};
    const __time64_t time = seconds;
    ::_localtime64_s(&result, &time);
    return result;
}

std::string threadText() {
    const LastErrorGuard lastError;  // the calls of the slot clear it
    const std::string* const text = textSlot().text();
    return text != nullptr ? *text : std::string();
}

void setThreadText(const std::string& text) {
    const LastErrorGuard lastError;
    textSlot().set(text);
}

struct Mutex::State {
    HANDLE handle;
};

Mutex::Mutex() : state_(new State{::CreateMutexA(nullptr, FALSE, nullptr)}) {
    if (state_->handle == nullptr) throw std::bad_alloc();
}

Mutex::~Mutex() {
    ::CloseHandle(state_->handle);
}

void Mutex::lock() {
    // An abandoned mutex is taken over: when a process ends, threads disappear in the middle of what they do.
    ::WaitForSingleObject(state_->handle, INFINITE);
}

void Mutex::unlock() {
    ::ReleaseMutex(state_->handle);
}

LastErrorGuard::LastErrorGuard() : errno_(errno), systemError_(::GetLastError()) {}

LastErrorGuard::~LastErrorGuard() {
    errno = errno_;
    ::SetLastError(systemError_);
}

}  // namespace Quovane::Internal::Qvtp::System
