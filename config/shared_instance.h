// SharedInstanceSlot: the slot of a process-wide shared object, filled on
// first use and emptied at exit.
//
// Declare one `constinit` at namespace scope: it is then usable from the very
// start, including from other files' static initialisers, and its destructor
// (registered during static initialisation) is the exit-time release.
#pragma once

#include <memory>
#include <mutex>
#include <utility>

namespace kel {

template <typename T>
class SharedInstanceSlot {
  public:
    constexpr SharedInstanceSlot() = default;
    // Empties the slot under the lock and drops the reference outside it, so
    // that the object lives on while a holder elsewhere still uses it, and its
    // destruction never runs under the lock.
    ~SharedInstanceSlot() {
        std::shared_ptr<T> last;
        const std::lock_guard<std::mutex> lock(mutex_);
        last = std::move(slot_);
    }
    SharedInstanceSlot(const SharedInstanceSlot&) = delete;
    SharedInstanceSlot& operator=(const SharedInstanceSlot&) = delete;

    // The object in the slot, made with `make()` under the lock when the slot
    // is empty. An exception from `make()` leaves the slot empty and reaches
    // the caller after the lock is released.
    template <typename Make>
    std::shared_ptr<T> get(Make&& make) {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (slot_ == nullptr) {
            slot_ = make();
        }
        return slot_;
    }

  private:
    std::mutex mutex_;
    std::shared_ptr<T> slot_;
};

}  // namespace kel
