// The inside of a LogServer, shared by the server's sources and by the file
// that defines LogServer::create (which test doubles replace).
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <variant>
#include <vector>

#include "platform/dispatch/dispatch.h"
#include "platform/logserver/log.h"

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

}  // namespace lum
