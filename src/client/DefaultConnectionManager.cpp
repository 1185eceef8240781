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
#include <utility>

namespace Quovane::Internal::Qvtp {

using Quovane::Io::IllegalStateException;
using Quovane::Io::QvPipeException;

namespace {

using Guard = std::lock_guard<RecursiveMutex>;

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

// The missing blanks in these texts are part of the interface: log readers match them.
std::string alreadyReturned(const PipeInfo& info) {
    return info.binding + "has already been returned to the Pipe Pool";
}

}  // namespace

DefaultConnectionManager::DefaultConnectionManager(int connectTimeoutMs, int staleTimeoutMs)
    : connectTimeoutMs_(connectTimeoutMs), staleTimeoutMs_(staleTimeoutMs) {}

DefaultConnectionManager::~DefaultConnectionManager() {
    Guard guard(lock_);
    available_.clear();
    used_.clear();
}

DefaultConnectionManager::QvPipe* DefaultConnectionManager::getPipe(const std::string& pipeName,
                                                                    const std::string& mode) {
    const std::string key = pipeName + "." + mode;
    PipeInfoPtr info = takeIdle(key);
    if (info == nullptr) info = createPipe(pipeName, mode, key);
    return use(std::move(info), pipeName);
}

DefaultConnectionManager::PipeInfoPtr DefaultConnectionManager::takeIdle(const std::string& key) {
    Guard guard(lock_);
    purgeStale();
    const auto found = available_.find(key);
    if (found == available_.end()) return nullptr;
    IdlePipes& idle = found->second;  // not empty: it was purged
    PipeInfoPtr info = std::move(idle.back());
    idle.pop_back();
    return info;
}

/// Pipes come back to the front, so everything after the first stale one is older still. So it is with the pipes of
/// the parent in a forked child: a connection that both used would mix their answers. Names without an idle pipe go
/// too.
void DefaultConnectionManager::purgeStale() {
    Guard guard(lock_);
    const std::int64_t nowMs = System::wallClockMs();
    const std::uint32_t processId = System::currentProcessId();
    const auto isForeign = [&](const PipeInfoPtr& info) { return info->processId != processId; };
    const auto isUseless = [&](const PipeInfoPtr& info) {
        return isForeign(info) || nowMs - info->lastUsedMs > staleTimeoutMs_;
    };
    for (auto entry = available_.begin(); entry != available_.end();) {
        IdlePipes& idle = entry->second;
        const auto fresh = std::find_if(idle.begin(), idle.end(), isUseless) - idle.begin();
        while (idle.size() > static_cast<std::size_t>(fresh)) {
            if (!isForeign(idle.back())) logDebug([&] { return "Deleting stale QvPipe " + idle.back()->binding; });
            idle.pop_back();
        }
        entry = idle.empty() ? available_.erase(entry) : std::next(entry);
    }
}

DefaultConnectionManager::PipeInfoPtr DefaultConnectionManager::createPipe(const std::string& pipeName,
                                                                           const std::string& mode,
                                                                           const std::string& key) {
    const std::string binding = nextBinding();
    const auto line = [&](const char* what) { return text(what, pipeName, "/", binding, ")"); };
    logDebug([&] { return line("Need a QvPipe ("); });
    Guard creation(creationLock());
    auto info = std::make_unique<PipeInfo>(key, binding);
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
    logDebug([&] { return text("Using QvPipe (", pipeName, "/", info->binding, ")"); });
    QvPipe* const pipe = info->pipe.get();
    used_[pipe] = std::move(info);
    return pipe;
}

const PipeInfo* DefaultConnectionManager::findAvailable(const QvPipe* pipe) const {
    for (const auto& [key, idle] : available_) {
        for (const PipeInfoPtr& info : idle) {
            if (info->pipe.get() == pipe) return info.get();
        }
    }
    return nullptr;
}

/// Without the memory for its place in the pool the pipe is closed.
void DefaultConnectionManager::keep(PipeInfoPtr info) {
    try {
        IdlePipes& idle = available_[info->key];
        idle.insert(idle.begin(), std::move(info));
    } catch (const std::bad_alloc&) {
        // Closed with its owner.
    }
}

void DefaultConnectionManager::returnPipe(QvPipe* pipe) {
    if (pipe == nullptr) return;
    Guard guard(lock_);
    const auto found = used_.find(pipe);
    if (found != used_.end()) {
        PipeInfoPtr info = std::move(found->second);
        used_.erase(found);
        if (info->processId != System::currentProcessId()) return;  // the parent's: closed here, for this process alone
        info->lastUsedMs = System::wallClockMs();
        keep(std::move(info));
        return;
    }
    if (const PipeInfo* info = findAvailable(pipe)) logErrorAndThrow<IllegalStateException>(alreadyReturned(*info));
    logErrorAndThrow<IllegalStateException>(
        text("Can't find the pipe ", static_cast<const void*>(pipe), "in the used or available pools."));
}

void DefaultConnectionManager::removePipe(QvPipe* pipe) {
    Guard guard(lock_);
    const auto found = used_.find(pipe);
    if (found != used_.end()) {
        logDebug([&] {
            return text("Remove QvPipe ", found->second->binding, "(", static_cast<const void*>(pipe),
                        ") from used pipe list");
        });
        used_.erase(found);
        return;
    }
    if (const PipeInfo* info = findAvailable(pipe)) logErrorAndThrow<IllegalStateException>(alreadyReturned(*info));
    if (pipe != nullptr) pipe->close();
    delete pipe;
    logErrorAndThrow<IllegalStateException>("Can't find the pipe in the Used or Available pools. Will delete it.");
}

}  // namespace Quovane::Internal::Qvtp
