#include "client/DefaultConnectionManager.h"

#include <qvtp/io/IllegalStateException.h>
#include <qvtp/io/QvPipeException.h>

#include "common/System.h"
#include "logging/Log.h"

#include <algorithm>
#include <atomic>
#include <iterator>
#include <mutex>
#include <new>
#include <string_view>
#include <utility>

namespace Quovane::Internal::Qvtp {

using Quovane::Io::IllegalStateException;
using Quovane::Io::QvPipeException;

namespace {

using Guard = std::lock_guard<RecursiveMutex>;

constexpr std::size_t KEPT_NAMES = 16;  // of which no pipe is idle
constexpr char KEY_DELIMITER = '.';

std::string nextBinding() {
    static std::atomic<int> counter{1};
    return "Binding-" + std::to_string(counter.fetch_add(1, std::memory_order_relaxed));
}

/// Serialises the creation and connection of pipes across all managers of the process. Never freed: clients may be
/// static objects.
RecursiveMutex& creationLock() {
    static RecursiveMutex* const lock = new RecursiveMutex;
    return *lock;
}

bool contains(const std::string& mode, char access) {
    return mode.find(access) != std::string::npos;
}

std::string keyOf(const std::string& pipeName, const std::string& mode) {
    return pipeName + KEY_DELIMITER + mode;
}

bool isKeyOf(std::string_view key, std::string_view pipeName, std::string_view mode) {
    const std::size_t length = pipeName.size();
    return key.size() == length + 1 + mode.size() && key[length] == KEY_DELIMITER &&
           key.substr(0, length) == pipeName && key.substr(length + 1) == mode;
}

// The missing blanks in these texts are part of the interface: log readers match them.
std::string alreadyReturned(const PipeInfo& info) {
    return info.binding + "has already been returned to the Pipe Pool";
}

}  // namespace

DefaultConnectionManager::DefaultConnectionManager(int connectTimeoutMs, int staleTimeoutMs)
    : connectTimeoutMs_(connectTimeoutMs), staleTimeoutMs_(staleTimeoutMs) {}

DefaultConnectionManager::~DefaultConnectionManager() {
    Guard guard(lock_);
    for (auto name = available_.rbegin(); name != available_.rend(); ++name) {
        for (const PipeInfo* info : name->second) close(*info);
    }
    pipes_.clear();
}

DefaultConnectionManager::QvPipe* DefaultConnectionManager::getPipe(const std::string& pipeName,
                                                                    const std::string& mode) {
    QvPipe* const idle = takeIdle(pipeName, mode);
    return idle != nullptr ? idle : use(createPipe(pipeName, mode), pipeName);
}

/// Null if there is none. The key is not put together, and all names are looked at: there are few.
DefaultConnectionManager::QvPipe* DefaultConnectionManager::takeIdle(const std::string& pipeName,
                                                                     const std::string& mode) {
    Guard guard(lock_);
    purgeStale();
    const auto found = std::find_if(available_.begin(), available_.end(),
                                    [&](const auto& entry) { return isKeyOf(entry.first, pipeName, mode); });
    if (found == available_.end() || found->second.empty()) return nullptr;
    PipeInfo& info = *found->second.back();
    found->second.pop_back();
    info.isIdle = false;
    logUse(info, pipeName);
    return info.pipe.get();
}

/// Pipes come back to the front, so everything after the first stale one is older still. So it is with the pipes of
/// the parent in a forked child: a connection that both used would mix their answers. Of names without an idle pipe a
/// few stay, since their next pipe is soon returned. With the lock held.
void DefaultConnectionManager::purgeStale() {
    const std::int64_t nowMs = System::wallClockMs();
    const std::uint32_t processId = System::currentProcessId();
    const auto isForeign = [&](const PipeInfo* info) { return info->processId != processId; };
    const auto isUseless = [&](const PipeInfo* info) {
        return isForeign(info) || nowMs - info->lastUsedMs > staleTimeoutMs_;
    };
    for (auto entry = available_.begin(); entry != available_.end();) {
        IdlePipes& idle = entry->second;
        const auto fresh = std::find_if(idle.begin(), idle.end(), isUseless) - idle.begin();
        while (idle.size() > static_cast<std::size_t>(fresh)) {
            const PipeInfo& info = *idle.back();
            if (!isForeign(&info)) logDebug([&] { return "Deleting stale QvPipe " + info.binding; });
            idle.pop_back();
            close(info);
        }
        const bool isKept = !idle.empty() || available_.size() <= KEPT_NAMES;
        entry = isKept ? std::next(entry) : available_.erase(entry);
    }
}

/// Whatever list it was in no longer has it.
void DefaultConnectionManager::close(const PipeInfo& info) {
    pipes_.erase(info.pipe.get());
}

DefaultConnectionManager::PipeInfoPtr DefaultConnectionManager::createPipe(const std::string& pipeName,
                                                                           const std::string& mode) {
    const std::string binding = nextBinding();
    const auto line = [&](const char* what) { return text(what, pipeName, "/", binding, ")"); };
    logDebug([&] { return line("Need a QvPipe ("); });
    Guard creation(creationLock());
    auto info = std::make_unique<PipeInfo>(keyOf(pipeName, mode), binding);
    try {
        connectPipe(*info, pipeName, mode);
        logDebug([&] { return line("Created QvPipe ("); });
    } catch (QvPipeException& e) {
        logError([&] { return line("Failed create/connect QvPipe ("); });
        info.reset();
        // The subclass is not kept: callers match this class.
        throw QvPipeException(e.getMessage(), e.getCode());
    }
    return info;
}

void DefaultConnectionManager::connectPipe(PipeInfo& info, const std::string& pipeName, const std::string& mode) const {
    const bool readable = contains(mode, 'r');
    const bool writable = contains(mode, 'w');
    info.pipe = std::make_unique<QvPipe>();
    info.pipe->setConnectTimeout(connectTimeoutMs_);
    info.pipe->bind(pipeName, readable, writable);
    info.pipe->connect();
    info.installBuffers(readable, writable);
}

DefaultConnectionManager::QvPipe* DefaultConnectionManager::use(PipeInfoPtr info, const std::string& pipeName) {
    Guard guard(lock_);
    logUse(*info, pipeName);
    QvPipe* const pipe = info->pipe.get();
    pipes_[pipe] = std::move(info);
    return pipe;
}

void DefaultConnectionManager::logUse(const PipeInfo& info, const std::string& pipeName) {
    logDebug([&] { return text("Using QvPipe (", pipeName, "/", info.binding, ")"); });
}

/// Null if the pool does not know the pipe.
PipeInfo* DefaultConnectionManager::find(QvPipe* pipe) const {
    const auto found = pipes_.find(pipe);
    return found != pipes_.end() ? found->second.get() : nullptr;
}

/// Without the memory for its place in the pool the pipe is closed.
void DefaultConnectionManager::keep(PipeInfo& info) {
    try {
        IdlePipes& idle = available_[info.key];
        idle.insert(idle.begin(), &info);
        info.isIdle = true;
    } catch (const std::bad_alloc&) {
        close(info);
    }
}

void DefaultConnectionManager::returnPipe(QvPipe* pipe) {
    if (pipe == nullptr) return;
    Guard guard(lock_);
    PipeInfo* const info = find(pipe);
    if (info == nullptr) {
        logErrorAndThrow<IllegalStateException>(
            text("Can't find the pipe ", static_cast<const void*>(pipe), "in the used or available pools."));
    }
    if (info->isIdle) logErrorAndThrow<IllegalStateException>(alreadyReturned(*info));
    if (info->processId != System::currentProcessId()) {
        close(*info);  // the parent's: closed here, for this process alone
        return;
    }
    info->lastUsedMs = System::wallClockMs();
    keep(*info);
}

void DefaultConnectionManager::removePipe(QvPipe* pipe) {
    Guard guard(lock_);
    if (const PipeInfo* const info = find(pipe)) {
        if (info->isIdle) logErrorAndThrow<IllegalStateException>(alreadyReturned(*info));
        logDebug([&] {
            return text("Remove QvPipe ", info->binding, "(", static_cast<const void*>(pipe), ") from used pipe list");
        });
        close(*info);
        return;
    }
    if (pipe != nullptr) pipe->close();
    delete pipe;
    logErrorAndThrow<IllegalStateException>("Can't find the pipe in the Used or Available pools. Will delete it.");
}

}  // namespace Quovane::Internal::Qvtp
