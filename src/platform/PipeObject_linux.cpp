#include "platform/PipeObject_linux.h"

#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <mutex>
#include <unordered_map>
#include <utility>

namespace Quovane::Internal::Qvtp {

PipeObject::~PipeObject() {
    if (!closed) close();
}

bool PipeObject::isOwn() const {
    return owner == ::getpid();
}

void PipeObject::close() {
    if (!isOwn()) return;
    if (served != nullptr) {
        std::lock_guard<std::mutex> guard(ServedName::namesMutex());
        closed = true;
        served->endClosed(!connected);
    } else {
        closed = true;
    }
    if (connected) ::shutdown(socket.get(), SHUT_RDWR);
    if (event.isOpen()) event.signal();
}

struct HandleTable::State {
    std::mutex mutex;  // guards what follows
    std::unordered_map<NativeHandle, std::shared_ptr<PipeObject>> objects;
    NativeHandle next = 4;
};

HandleTable::HandleTable() : state_(new State) {
    // A forked child has one thread. Were another one within the locks, they would stay locked there.
    ::pthread_atfork(
        [] {
            ServedName::namesMutex().lock();
            instance().state_->mutex.lock();
        },
        unlockAll, unlockAll);
}

void HandleTable::unlockAll() {
    instance().state_->mutex.unlock();
    ServedName::namesMutex().unlock();
}

HandleTable& HandleTable::instance() {
    static HandleTable* const table = new HandleTable;  // never freed: destructors of static objects may close pipes
    return *table;
}

NativeHandle HandleTable::add(std::shared_ptr<PipeObject> object) {
    std::lock_guard<std::mutex> guard(state_->mutex);
    const NativeHandle handle = state_->next;
    state_->next += 4;
    state_->objects.emplace(handle, std::move(object));
    return handle;
}

std::shared_ptr<PipeObject> HandleTable::find(NativeHandle handle) {
    std::lock_guard<std::mutex> guard(state_->mutex);
    const auto found = state_->objects.find(handle);
    return found != state_->objects.end() ? found->second : nullptr;
}

std::shared_ptr<PipeObject> HandleTable::remove(NativeHandle handle) {
    std::lock_guard<std::mutex> guard(state_->mutex);
    const auto found = state_->objects.find(handle);
    if (found == state_->objects.end()) return nullptr;
    std::shared_ptr<PipeObject> object = std::move(found->second);
    state_->objects.erase(found);
    return object;
}

}  // namespace Quovane::Internal::Qvtp
