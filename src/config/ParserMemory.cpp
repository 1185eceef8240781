#include "config/ParserMemory.h"

#include <atomic>
#include <cstddef>

namespace Quovane::Internal::Qvtp {

namespace {

constexpr std::size_t RESERVE = std::size_t{1024} * 1024;  // the initialisation needs about 700 KB

// What the handler needs, on whatever thread it runs.
std::atomic<void*> reserve{nullptr};
std::atomic<std::new_handler> nextHandler{nullptr};

void giveUpReserve() {
    if (void* const block = reserve.exchange(nullptr)) {
        ::operator delete(block);
    } else if (const std::new_handler next = nextHandler) {
        next();
    } else {
        throw std::bad_alloc();
    }
}

}  // namespace

ParserMemory::ParserMemory() : handlerBefore_(nullptr) {
    reserve = ::operator new(RESERVE);
    handlerBefore_ = std::get_new_handler();
    nextHandler = handlerBefore_;
    std::set_new_handler(giveUpReserve);
}

ParserMemory::~ParserMemory() {
    // Whoever has set a handler meanwhile keeps it, and may go on to this one.
    if (std::get_new_handler() == giveUpReserve) std::set_new_handler(handlerBefore_);
    ::operator delete(reserve.exchange(nullptr));
}

}  // namespace Quovane::Internal::Qvtp
