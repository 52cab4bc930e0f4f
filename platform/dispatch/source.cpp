// Signal and timer sources.
//
// Every armed source is a signalfd or timerfd registered with an epoll
// instance: the one of a single event thread that the first source starts, or,
// for sources on the main queue, the one behind the main queue's wake-up fd,
// so that their events wake the main run loop directly instead of costing a
// second thread's wake-up first. Each fd is registered EPOLLONESHOT and
// re-armed only when its firing has finished, which is what keeps a source's
// handler to one firing at a time. The registration holds a reference: an
// activated source lives until it is cancelled, whoever else lets go of it.
//
// Handlers for the global queue run inline on the event thread; handlers for
// any other queue are posted to it. The trade-off: a timer firing for the
// global queue costs exactly one wake-up (the event thread's) instead of two
// (event thread plus a pool worker), at the price that a slow global handler
// delays the other sources' firings until it returns. The daemon's global
// handlers are short, so the wake-up budget wins. Handlers that may block for
// long belong on a serial queue of their own.

#include <errno.h>
#include <signal.h>
#include <string.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <unordered_map>

#include "platform/dispatch/dispatch.h"
#include "platform/dispatch/dispatch_internal.h"
#include "platform/posix/unique_fd.h"
#include "platform/systemlog/system_log.h"

using dispatch::internal::Work;

struct dispatch_source_type_s {
    enum class Kind { kSignal, kTimer };
    Kind kind;
};

namespace {

constexpr dispatch_source_type_s kSignalType{dispatch_source_type_s::Kind::kSignal};
constexpr dispatch_source_type_s kTimerType{dispatch_source_type_s::Kind::kTimer};

using Handler = std::shared_ptr<const dispatch_block_t>;

}  // namespace

const dispatch_source_type_t DISPATCH_SOURCE_TYPE_SIGNAL = &kSignalType;
const dispatch_source_type_t DISPATCH_SOURCE_TYPE_TIMER = &kTimerType;

struct dispatch_source_s : dispatch_object_s {
    dispatch_source_s(dispatch_source_type_t type, int signalNumber, platform::UniqueFd fd,
                      dispatch_queue_t queue, int pollFd, uint64_t id)
        : dispatch_object_s(Kind::kSource, false),
          type_(type),
          signalNumber_(signalNumber),
          queue_(queue),
          pollFd_(pollFd),
          id_(id),
          fd_(std::move(fd)) {
        dispatch_retain(queue_);
        fireWork_.source = this;
    }
    ~dispatch_source_s() override { dispatch_release(queue_); }

    struct FireWork : Work {
        FireWork();
        dispatch_source_s* source = nullptr;
    };

    const dispatch_source_type_t type_;
    const int signalNumber_;
    const dispatch_queue_t queue_;
    const int pollFd_;   // the epoll instance that watches fd_
    const uint64_t id_;  // the key under which an event finds it

    std::mutex mutex_;
    platform::UniqueFd fd_;
    Handler handler_;
    bool activated_ = false;
    bool registered_ = false;
    bool firing_ = false;  // between an event and the end of its handler
    bool cancelled_ = false;
    FireWork fireWork_;
};

namespace {

// The epoll instance and its thread. Sources are looked up by id under the
// registry lock, so an event that arrives for a source being cancelled never
// touches a freed object or a closed fd.
class EventLoop {
  public:
    // The loop, started on first use; null when it cannot be started.
    static EventLoop* get() {
        static EventLoop* const sLoop = [] {
            platform::UniqueFd epollFd(epoll_create1(EPOLL_CLOEXEC));
            if (!epollFd.valid()) {
                return static_cast<EventLoop*>(nullptr);
            }
            auto* loop = new EventLoop(std::move(epollFd));
            if (!dispatch::internal::startDetachedThread("kel-events", [loop] { loop->run(); })) {
                delete loop;
                return static_cast<EventLoop*>(nullptr);
            }
            return loop;
        }();
        return sLoop;
    }

    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;
    ~EventLoop() = default;

    // Registers the source's fd, armed for one event. The registry holds a
    // reference until unregister().
    bool add(dispatch_source_s* source) {
        {
            std::lock_guard lock(mutex_);
            dispatch_retain(source);
            sources_.emplace(source->id_, source);
        }
        epoll_event event = makeEvent(source);
        if (epoll_ctl(source->pollFd_, EPOLL_CTL_ADD, source->fd_.get(), &event) == 0) {
            return true;
        }
        unregister(source);
        return false;
    }

    static void rearm(dispatch_source_s* source) {
        epoll_event event = makeEvent(source);
        epoll_ctl(source->pollFd_, EPOLL_CTL_MOD, source->fd_.get(), &event);
    }

    static void remove(dispatch_source_s* source) {
        epoll_ctl(source->pollFd_, EPOLL_CTL_DEL, source->fd_.get(), nullptr);
    }

    void unregister(dispatch_source_s* source) {
        {
            std::lock_guard lock(mutex_);
            sources_.erase(source->id_);
        }
        dispatch_release(source);
    }

    // The epoll instance for a source delivering on `queue`.
    int pollFdFor(dispatch_queue_t queue) const {
        const int mainPollFd =
            queue == dispatch_get_main_queue() ? dispatch::internal::mainQueuePollFd() : -1;
        return mainPollFd >= 0 ? mainPollFd : epollFd_.get();
    }

    // Handles an event for the source registered under `id`, if it still is.
    void deliver(uint64_t id) {
        dispatch_source_s* source = nullptr;
        {
            std::lock_guard lock(mutex_);
            auto found = sources_.find(id);
            if (found != sources_.end()) {
                source = found->second;
                dispatch_retain(source);
            }
        }
        if (source) {
            handleEvent(source);
            dispatch_release(source);
        }
    }

  private:
    explicit EventLoop(platform::UniqueFd epollFd) : epollFd_(std::move(epollFd)) {}

    static epoll_event makeEvent(const dispatch_source_s* source) {
        epoll_event event{};
        event.events = EPOLLIN | EPOLLONESHOT;
        event.data.u64 = source->id_;
        return event;
    }

    void run() {
        epoll_event events[8];
        for (;;) {
            const int count = epoll_wait(epollFd_.get(), events, 8, -1);
            for (int i = 0; i < count; ++i) {
                deliver(events[i].data.u64);
            }
        }
    }

    void handleEvent(dispatch_source_s* source);

    const platform::UniqueFd epollFd_;
    std::mutex mutex_;
    std::unordered_map<uint64_t, dispatch_source_s*> sources_;
};

// Reads every event the fd holds; returns whether there was any.
bool readEvents(dispatch_source_s* source) {
    if (source->type_ == DISPATCH_SOURCE_TYPE_TIMER) {
        uint64_t expirations = 0;
        return read(source->fd_.get(), &expirations, sizeof expirations) == sizeof expirations;
    }
    bool any = false;
    signalfd_siginfo infos[4];
    while (read(source->fd_.get(), infos, sizeof infos) > 0) {
        any = true;
    }
    return any;
}

// Closes the fd and takes the handler, for the caller to destroy once it has
// dropped the source's lock. Called with the lock held, once cancelled and no
// firing runs.
Handler closeLocked(dispatch_source_s* source) {
    if (source->fd_.valid()) {
        if (source->registered_) {
            EventLoop::remove(source);
        }
        source->fd_.reset();
    }
    return std::move(source->handler_);
}

void fire(dispatch_source_s* source) {
    Handler handler;
    {
        std::lock_guard lock(source->mutex_);
        if (!source->cancelled_) {
            handler = source->handler_;
        }
    }
    if (handler && *handler) {
        (*handler)();
    }
    Handler released;
    std::lock_guard lock(source->mutex_);
    source->firing_ = false;
    if (source->cancelled_) {
        released = closeLocked(source);
    } else {
        EventLoop::rearm(source);
    }
}

void EventLoop::handleEvent(dispatch_source_s* source) {
    {
        std::lock_guard lock(source->mutex_);
        if (source->cancelled_) {
            return;
        }
        if (!readEvents(source)) {
            rearm(source);
            return;
        }
        source->firing_ = true;
    }
    if (source->queue_->kind_ == dispatch_object_s::Kind::kGlobalQueue) {
        fire(source);
    } else {
        dispatch_retain(source);
        dispatch::internal::enqueue(source->queue_, &source->fireWork_);
    }
}

}  // namespace

dispatch_source_s::FireWork::FireWork() {
    run = [](Work* self) {
        dispatch_source_s* source = static_cast<FireWork*>(self)->source;
        fire(source);
        dispatch_release(source);
    };
}

void dispatch::internal::queueMainQueueSourceFirings(int pollFd) {
    epoll_event events[8];
    const int count = epoll_wait(pollFd, events, 8, 0);
    for (int i = 0; i < count; ++i) {
        // epoll_event is packed: copy the id out before using it.
        const uint64_t id = events[i].data.u64;
        if (id != kMainQueueWakeupId) {
            EventLoop::get()->deliver(id);
        }
    }
}

dispatch_object_t dispatch_object_of(dispatch_source_t source) {
    return source;
}

dispatch_source_t dispatch_source_create(dispatch_source_type_t type, uintptr_t handle, uintptr_t,
                                         dispatch_queue_t queue) {
    static std::atomic<uint64_t> sNextId{1};
    platform::UniqueFd fd;
    int signalNumber = 0;
    if (type == DISPATCH_SOURCE_TYPE_SIGNAL) {
        if (handle == 0 || handle > static_cast<uintptr_t>(SIGRTMAX)) {
            return nullptr;
        }
        signalNumber = static_cast<int>(handle);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, signalNumber);
        fd.reset(signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC));
    } else if (type == DISPATCH_SOURCE_TYPE_TIMER) {
        fd.reset(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC));
    }
    // A source nobody could ever watch is not made at all: a caller that gets
    // one relies on it, for instance by ignoring the signal it reports.
    if (!fd.valid() || EventLoop::get() == nullptr) {
        static const systemlog::Handle sLog = systemlog::create(systemlog::kSubsystem, "dispatch");
        const char* why = fd.valid() ? "no event thread" : strerror(errno);
        if (type == DISPATCH_SOURCE_TYPE_SIGNAL) {
            systemlog::write(sLog, systemlog::Level::kError,
                             "cannot watch signal %d (%s): %s; it keeps its default action",
                             signalNumber, strsignal(signalNumber), why);
        } else {
            systemlog::write(sLog, systemlog::Level::kError, "cannot make a timer: %s", why);
        }
        return nullptr;
    }
    if (queue == nullptr) {
        queue = dispatch_get_global_queue(DISPATCH_QUEUE_PRIORITY_DEFAULT, 0);
    }
    return new dispatch_source_s(type, signalNumber, std::move(fd), queue,
                                 EventLoop::get()->pollFdFor(queue),
                                 sNextId.fetch_add(1, std::memory_order_relaxed));
}

void dispatch_source_set_event_handler(dispatch_source_t source, dispatch_block_t handler) {
    auto replacement = std::make_shared<const dispatch_block_t>(std::move(handler));
    std::lock_guard lock(source->mutex_);
    if (!source->cancelled_) {
        source->handler_.swap(replacement);
    }
}

// Firings are on time: leeway is accepted but not used to defer them (a timerfd
// expires at its deadline and the event thread runs with default slack).
void dispatch_source_set_timer(dispatch_source_t source, dispatch_time_t start, uint64_t intervalNs,
                               uint64_t) {
    if (source->type_ != DISPATCH_SOURCE_TYPE_TIMER) {
        return;
    }
    itimerspec schedule{};
    if (start != DISPATCH_TIME_FOREVER) {
        // An absolute zero would disarm the timer; 1 ns is in the past and
        // fires at once, as DISPATCH_TIME_NOW asks.
        schedule.it_value = platform::toTimespec(start == DISPATCH_TIME_NOW ? 1 : start);
        if (intervalNs != DISPATCH_TIME_FOREVER) {
            schedule.it_interval = platform::toTimespec(intervalNs);
        }
    }
    std::lock_guard lock(source->mutex_);
    if (source->fd_.valid()) {
        timerfd_settime(source->fd_.get(), TFD_TIMER_ABSTIME, &schedule, nullptr);
    }
}

void dispatch_activate(dispatch_source_t source) {
    // Start the event thread first: nothing slow may happen once a signal is
    // blocked (see below).
    EventLoop* loop = EventLoop::get();
    {
        std::lock_guard lock(source->mutex_);
        if (!loop || source->activated_ || source->cancelled_) {
            return;
        }
        source->activated_ = true;
        source->registered_ = loop->add(source);
        if (!source->registered_ || source->type_ != DISPATCH_SOURCE_TYPE_SIGNAL) {
            return;
        }
    }
    // Blocking is the very last step. Until here the signal keeps its default
    // action; from here on it stays pending until the signalfd reads it, even
    // once its disposition is set to ignore. One window is left, and it
    // belongs to the caller: setting the disposition to ignore discards an
    // instance that is pending at that moment and has not been read yet.
    // Returning right after blocking keeps that window to the caller's next
    // statement.
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, source->signalNumber_);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void dispatch_source_cancel(dispatch_source_t source) {
    Handler released;
    bool registered;
    {
        std::lock_guard lock(source->mutex_);
        if (source->cancelled_) {
            return;
        }
        source->cancelled_ = true;
        registered = source->registered_;
        if (!source->firing_) {
            released = closeLocked(source);
        }
    }
    // Outside the source's lock: this may drop the registry's reference.
    if (registered) {
        EventLoop::get()->unregister(source);
    }
}
