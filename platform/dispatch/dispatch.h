// Dispatch: serial queues, the main queue, the default-priority global
// concurrent queue, groups, and signal and timer sources.
//
// What callers may rely on:
//  - Work submitted to a serial queue runs one item at a time, in submission
//    order, whether it was submitted synchronously or asynchronously.
//  - Threads are started lazily and never poll: a process whose queues are
//    idle and whose sources are not armed has no thread waking up.
//  - Every thread this library starts blocks all asynchronous signals, so
//    process-directed signals reach only the main thread or a signal source.
//  - The main queue runs only inside the main run loop (platform/runloop).
//  - Handles are reference counted; creation returns one reference, which the
//    caller gives back with dispatch_release. The main and global queues are
//    process-wide and ignore retain and release.
//  - A queue holds a reference to its target; a source holds a reference to
//    its queue. Work in flight keeps its queue alive.
#pragma once

#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

struct dispatch_object_s;
struct dispatch_queue_s;
struct dispatch_group_s;
struct dispatch_source_s;
struct dispatch_queue_attr_s;
struct dispatch_source_type_s;

using dispatch_object_t = dispatch_object_s*;
using dispatch_queue_t = dispatch_queue_s*;
using dispatch_group_t = dispatch_group_s*;
using dispatch_source_t = dispatch_source_s*;
using dispatch_queue_attr_t = const dispatch_queue_attr_s*;
using dispatch_source_type_t = const dispatch_source_type_s*;

using dispatch_function_t = void (*)(void* context);
using dispatch_block_t = std::function<void()>;

// Absolute times in nanoseconds of CLOCK_MONOTONIC, with two special values.
using dispatch_time_t = uint64_t;
inline constexpr dispatch_time_t DISPATCH_TIME_NOW = 0;
inline constexpr dispatch_time_t DISPATCH_TIME_FOREVER = ~uint64_t{0};

// No attributes: a serial queue. Serial is the only kind of queue one can
// create; the global queue is the only concurrent one.
inline constexpr dispatch_queue_attr_t DISPATCH_QUEUE_SERIAL = nullptr;

inline constexpr intptr_t DISPATCH_QUEUE_PRIORITY_DEFAULT = 0;

// Source types. For a signal source the handle is the signal number; the
// signal is blocked in the activating thread and read through signalfd, so it
// is reported even when its disposition is later set to ignore. For a timer
// source the handle and mask are accepted and ignored: every timer runs on
// CLOCK_MONOTONIC.
extern const dispatch_source_type_t DISPATCH_SOURCE_TYPE_SIGNAL;
extern const dispatch_source_type_t DISPATCH_SOURCE_TYPE_TIMER;

// --- Reference counting -----------------------------------------------------

dispatch_object_t dispatch_object_of(dispatch_queue_t queue);
dispatch_object_t dispatch_object_of(dispatch_group_t group);
dispatch_object_t dispatch_object_of(dispatch_source_t source);

void dispatch_retain(dispatch_object_t object);
void dispatch_release(dispatch_object_t object);

template <typename Handle>
void dispatch_retain(Handle handle) {
    dispatch_retain(dispatch_object_of(handle));
}
template <typename Handle>
void dispatch_release(Handle handle) {
    dispatch_release(dispatch_object_of(handle));
}

// --- Time ---------------------------------------------------------------------

// `when` plus `deltaNs` (DISPATCH_TIME_NOW means the current time). Saturates
// at DISPATCH_TIME_FOREVER; FOREVER stays FOREVER.
dispatch_time_t dispatch_time(dispatch_time_t when, int64_t deltaNs);

// --- Queues -------------------------------------------------------------------

// A new serial queue. `label` names it for the reader of the calling code; it
// may be null and is not kept.
[[nodiscard]] dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t attr);

// A new serial queue whose work runs on `target`'s threads, serialised with the
// target's own work when the target is serial. A null target is the global
// queue.
[[nodiscard]] dispatch_queue_t dispatch_queue_create_with_target(const char* label,
                                                                 dispatch_queue_attr_t attr,
                                                                 dispatch_queue_t target);

dispatch_queue_t dispatch_get_main_queue();
dispatch_queue_t dispatch_get_global_queue(intptr_t priority, uintptr_t flags);

// Runs `work(context)` on `queue` and returns when it has run. On a serial
// queue that is idle, the work runs on the calling thread while holding the
// queue's exclusivity; when earlier work is queued, the caller waits for its
// turn and then runs the work on its own thread. Must not be called from the
// queue itself (it would wait for itself).
void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work);

// Enqueues `work(context)` and returns at once.
void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work);

// Enqueues `work(context)` and waits until it has run on one of the queue's
// threads (never on the caller's).
void dispatch_async_and_wait_f(dispatch_queue_t queue, void* context, dispatch_function_t work);

// Enqueues `work(context)` as a barrier and returns at once. On a serial queue
// a barrier is ordinary work: it runs after everything enqueued before it.
void dispatch_barrier_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work);

// Runs `work(context)` as a barrier without ever waiting for other work. On an
// idle serial queue that targets the global queue, it runs at once on the
// calling thread, holding the queue's exclusivity as dispatch_sync does, and
// the call returns when it has run; otherwise it is enqueued as by
// dispatch_barrier_async_f and the call returns at once. Either way it runs
// after everything enqueued before it and alone on the queue, and the queue
// stays alive while it runs, so it may give back the last reference to it.
void dispatch_barrier_inline_or_async_f(dispatch_queue_t queue, void* context,
                                        dispatch_function_t work);

// Block forms. The synchronous ones take the callable by reference and never
// copy or allocate; dispatch_async copies the block onto the heap.
template <typename F>
void dispatch_sync(dispatch_queue_t queue, F&& work) {
    dispatch_sync_f(queue, const_cast<void*>(static_cast<const volatile void*>(&work)),
                    [](void* context) { (*static_cast<std::remove_reference_t<F>*>(context))(); });
}

template <typename F>
void dispatch_async_and_wait(dispatch_queue_t queue, F&& work) {
    dispatch_async_and_wait_f(
        queue, const_cast<void*>(static_cast<const volatile void*>(&work)),
        [](void* context) { (*static_cast<std::remove_reference_t<F>*>(context))(); });
}

void dispatch_async(dispatch_queue_t queue, dispatch_block_t work);

// --- Groups ---------------------------------------------------------------------

[[nodiscard]] dispatch_group_t dispatch_group_create();
void dispatch_group_enter(dispatch_group_t group);
void dispatch_group_leave(dispatch_group_t group);

// Waits until every enter has been matched by a leave, or until `timeout`.
// Returns 0 on completion and non-zero on time-out. DISPATCH_TIME_FOREVER
// waits without limit, on a futex, never polling.
long dispatch_group_wait(dispatch_group_t group, dispatch_time_t timeout);

// --- Sources --------------------------------------------------------------------

// A new, inactive source delivering on `queue` (null: the global queue).
// Returns null when the kernel objects behind it, or the thread that watches
// them, cannot be made.
[[nodiscard]] dispatch_source_t dispatch_source_create(dispatch_source_type_t type,
                                                       uintptr_t handle, uintptr_t mask,
                                                       dispatch_queue_t queue);

// The handler runs on the source's queue, one firing at a time. The source
// keeps its own copy until it is cancelled and the last firing has finished.
void dispatch_source_set_event_handler(dispatch_source_t source, dispatch_block_t handler);

// Arms a timer source: first firing at `start`, then every `intervalNs`
// (DISPATCH_TIME_FOREVER: once). `leewayNs` is how late a firing may come, so
// that it could share a wake-up with other work; this implementation accepts
// it and fires on time.
void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start, uint64_t intervalNs,
                               uint64_t leewayNs);

// Sources start inactive; events are delivered only after activation.
// Activating twice is harmless.
void dispatch_activate(dispatch_source_t source);

// No handler starts after this returns. A firing already running finishes.
void dispatch_source_cancel(dispatch_source_t source);

// --- Hooks for the main run loop --------------------------------------------------

// A file descriptor that polls readable while the main queue has work queued
// or one of its sources has an event waiting.
int dispatch_main_queue_wakeup_fd();

// Runs the main-queue work queued at the moment of the call, with the firings
// of the main queue's sources whose events have arrived (not work that it
// enqueues in turn), on the calling thread, which must be the main thread.
// Returns how many items ran.
int dispatch_main_queue_drain();

namespace dispatch {

// Owns one reference to a dispatch object (queue, group or source) and gives
// it back when destroyed. Move-only. adopt() takes over the reference that a
// create function returned; retain() takes a new one on a handle that someone
// else owns.
//
//   dispatch::Owned<dispatch_queue_t> queue =
//       dispatch::Owned<dispatch_queue_t>::adopt(dispatch_queue_create("q", nullptr));
template <typename Handle>
class [[nodiscard]] Owned {
  public:
    Owned() = default;
    static Owned adopt(Handle handle) { return Owned(handle); }
    static Owned retain(Handle handle) {
        if (handle != nullptr) {
            dispatch_retain(handle);
        }
        return Owned(handle);
    }
    Owned(Owned&& other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    Owned& operator=(Owned&& other) noexcept {
        std::swap(handle_, other.handle_);
        return *this;
    }
    ~Owned() {
        if (handle_ != nullptr) {
            dispatch_release(handle_);
        }
    }

    Handle get() const { return handle_; }
    explicit operator bool() const { return handle_ != nullptr; }

  private:
    explicit Owned(Handle handle) : handle_(handle) {}
    Handle handle_ = nullptr;
};

// A reference for closures that the platform copies, such as event handlers:
// every copy holds a reference of its own, so the object lives as long as any
// copy of the closure does.
template <typename Handle>
class Retained {
  public:
    explicit Retained(Handle handle) : handle_(handle) { dispatch_retain(handle_); }
    Retained(const Retained& other) : Retained(other.handle_) {}
    Retained& operator=(const Retained&) = delete;
    ~Retained() { dispatch_release(handle_); }

    Handle get() const { return handle_; }

  private:
    Handle handle_;
};

// A share in a group's completion: the group counts as busy while any copy of
// a session exists. Handy for handing one completion to several parties.
class group_session {
  public:
    group_session() = default;
    explicit group_session(dispatch_group_t group);
    group_session(const group_session& other);
    group_session(group_session&& other) noexcept : group_(std::exchange(other.group_, nullptr)) {}
    group_session& operator=(group_session other) noexcept {
        std::swap(group_, other.group_);
        return *this;
    }
    ~group_session();

    dispatch_group_t group() const { return group_; }

  private:
    dispatch_group_t group_ = nullptr;
};

}  // namespace dispatch
