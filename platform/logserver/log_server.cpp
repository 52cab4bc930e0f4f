#include <time.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "platform/logserver/log.h"
#include "platform/posix/clock.h"
#include "platform/posix/thread.h"

namespace lum {

struct LogServer::State {
    explicit State(std::string serverName) : name(std::move(serverName)) {}

    // What the delivery thread works through, in order of acceptance. Adding a
    // writer goes through the queue too, so that it sees exactly the records
    // accepted after addWriter. A flush is a session of its group: each writer
    // is offered a copy once the records before it have been handed over.
    using Item = std::variant<std::shared_ptr<LogMessage>, std::shared_ptr<LogWriter>,
                              dispatch::group_session>;

    // Appends `item` and wakes the delivery thread if it sleeps. False when
    // the server is closed.
    bool enqueue(Item item);
    bool startThread();
    void run();
    void deliver(std::vector<Item>& batch);

    const std::string name;

    std::mutex mutex;
    std::condition_variable wake;
    std::vector<Item> queue;    // guarded by mutex
    uint64_t nextSequence = 1;  // guarded by mutex
    bool sleeping = false;      // guarded by mutex: the thread waits on `wake`
    bool stopping = false;      // guarded by mutex
    bool closed = false;        // guarded by mutex

    // Only the delivery thread touches the writers while it runs; close() takes
    // them over after joining it.
    std::vector<std::shared_ptr<LogWriter>> writers;

    std::mutex lifecycleMutex;  // serialises start() and close()
    std::thread thread;         // guarded by lifecycleMutex
};

bool LogServer::State::enqueue(Item item) {
    bool wakeThread = false;
    {
        std::lock_guard lock(mutex);
        if (closed) {
            return false;
        }
        if (auto* message = std::get_if<std::shared_ptr<LogMessage>>(&item)) {
            (*message)->sequence = nextSequence++;
        }
        queue.push_back(std::move(item));
        wakeThread = std::exchange(sleeping, false);
    }
    // One wake per burst: while the thread is delivering, it picks up
    // everything queued meanwhile without being signalled.
    if (wakeThread) {
        wake.notify_one();
    }
    return true;
}

bool LogServer::State::startThread() {
    std::optional<std::thread> started = platform::startThread("kel-logserver", [this] { run(); });
    if (!started) {
        return false;
    }
    thread = std::move(*started);
    return true;
}

void LogServer::State::run() {
    std::vector<Item> batch;
    std::unique_lock lock(mutex);
    for (;;) {
        while (queue.empty() && !stopping) {
            sleeping = true;
            wake.wait(lock);
        }
        sleeping = false;
        if (queue.empty()) {
            return;
        }
        batch.swap(queue);
        lock.unlock();
        deliver(batch);
        batch.clear();
        lock.lock();
    }
}

void LogServer::State::deliver(std::vector<Item>& batch) {
    for (Item& item : batch) {
        if (auto* message = std::get_if<std::shared_ptr<LogMessage>>(&item)) {
            for (const auto& writer : writers) {
                writer->write(*message);
            }
        } else if (auto* writer = std::get_if<std::shared_ptr<LogWriter>>(&item)) {
            writers.push_back(std::move(*writer));
        } else {
            const auto& session = std::get<dispatch::group_session>(item);
            for (const auto& each : writers) {
                each->flush(session);
            }
        }
    }
}

LogServer::LogServer(std::unique_ptr<State> state) : state_(std::move(state)) {}

std::shared_ptr<LogServer> LogServer::create(const std::string& name) {
    return std::shared_ptr<LogServer>(new LogServer(std::make_unique<State>(name)));
}

LogServer::~LogServer() {
    close();
}

const std::string& LogServer::name() const {
    return state_->name;
}

void LogServer::addWriter(std::shared_ptr<LogWriter> writer) {
    state_->enqueue(std::move(writer));
}

void LogServer::start() {
    std::lock_guard lifecycle(state_->lifecycleMutex);
    {
        std::lock_guard lock(state_->mutex);
        if (state_->closed) {
            return;
        }
    }
    if (!state_->thread.joinable() && !state_->startThread()) {
        systemlog::write(systemlog::create(systemlog::kSubsystem, "LogServer"),
                         systemlog::Level::kError, "%s: cannot start the delivery thread",
                         state_->name.c_str());
    }
}

void LogServer::submit(LogLevel level, std::string firstText, std::string secondText) {
    auto message = std::make_shared<LogMessage>();
    message->timestampNs = platform::nowNs(CLOCK_REALTIME);
    message->level = level;
    message->firstText = std::move(firstText);
    message->secondText = std::move(secondText);
    state_->enqueue(std::move(message));
}

// A flush is queued like a record, so one requested before start() completes
// once the server starts (or closes) and has handed over what came before it.
dispatch_group_t LogServer::flush() const {
    dispatch_group_t group = dispatch_group_create();
    if (!state_->enqueue(dispatch::group_session(group))) {
        dispatch_release(group);
        return nullptr;
    }
    return group;
}

void LogServer::close() {
    std::lock_guard lifecycle(state_->lifecycleMutex);
    bool pending = false;
    {
        std::lock_guard lock(state_->mutex);
        if (state_->closed) {
            return;
        }
        state_->closed = true;
        state_->stopping = true;
        pending = !state_->queue.empty();
    }
    // Records, writers and flushes accepted before a start that never came are
    // still handed over from a delivery thread of their own.
    if (!state_->thread.joinable() && pending) {
        state_->startThread();
    }
    if (state_->thread.joinable()) {
        state_->wake.notify_one();
        state_->thread.join();
    }
    std::vector<std::shared_ptr<LogWriter>> writers = std::move(state_->writers);
    for (const auto& writer : writers) {
        writer->close();
    }
    // Whatever a failed start left behind goes now, ending its flush sessions.
    std::lock_guard lock(state_->mutex);
    state_->queue.clear();
}

}  // namespace lum
