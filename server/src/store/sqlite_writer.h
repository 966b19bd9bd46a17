// The one thread of a process that writes to the catalogue. Writes that arrive together share a transaction
// and its flush.
#pragma once

#include "store/sqlite_connection.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace halvane::server {

enum class Durability {
    Relaxed, // committed: survives the end of the process, in a power cut only when a later flushed write was
             // done
    Flushed, // on the disk when it is acknowledged
};

// Thread-safe. Destroying it finishes what was submitted.
class SqliteWriter {
public:
    // Runs inside a transaction; may run again from the start when its batch had to be rolled back, and so
    // must only touch the connection and its own outputs. What it throws rolls its own changes back and goes
    // to the submitter.
    using Work = std::function<void(SqliteConnection&)>;
    // Called once on the writer's thread: with null when the work is committed (and flushed, where that was
    // asked for), else with what it threw. Must be quick and must not throw.
    using Done = std::function<void(std::exception_ptr)>;

    // The end of one work, which its submitter waits for. Once the submitter has the failure it alone holds
    // it.
    class Pending {
    public:
        explicit Pending(std::future<std::exception_ptr> failure) : m_failure(std::move(failure)) {}
        // Once. Returns when the work is committed, throws what it threw.
        void get();

    private:
        std::future<std::exception_ptr> m_failure;
    };

    explicit SqliteWriter(const std::string& path);
    ~SqliteWriter();
    SqliteWriter(const SqliteWriter&) = delete;
    SqliteWriter& operator=(const SqliteWriter&) = delete;

    // Blocks until the work is committed. Throws ApiError.
    void run(Durability durability, Work work);
    // Queues the work and returns at once. It need not begin before begin() is called: who submits several
    // has them in one transaction.
    void submit(Durability durability, Work work, Done done);
    // Queues all of them next to each other, so that they come into one transaction as far as a batch holds
    // them.
    std::vector<Pending> submit(Durability durability, std::vector<Work> works);
    void begin() { m_wake.notify_one(); }
    // The number of the transaction that is being made or has just been committed; for works and their ends.
    std::uint64_t transaction() const { return m_transaction; }

private:
    struct Job {
        Durability durability;
        Work work;
        Done done;
    };

    static constexpr std::size_t maximumBatch = 256;

    void threadMain();
    void checkpointMain();
    std::vector<Job> nextBatch();
    void process(std::vector<Job>& batch);
    bool runTogether(std::vector<Job>& batch);
    void runAlone(Job& job);
    std::exception_ptr failureOf(const Job& job);
    std::exception_ptr refusalOfTransaction(Durability durability);
    void prepareTransaction(Durability durability);
    void rollBack();
    void afterCommit();
    std::exception_ptr translatedCurrent();

    std::string m_path;
    SqliteConnection m_connection;
    Durability m_synchronous = Durability::Flushed;
    int m_walPages = 0;
    std::uint64_t m_transaction = 0; // of the writer's thread alone

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::condition_variable m_wakeCheckpoint;
    std::deque<Job> m_queue;
    bool m_stop = false;
    bool m_checkpointDue = false;
    std::thread m_checkpointThread;
    std::thread m_thread;
};

} // namespace halvane::server
