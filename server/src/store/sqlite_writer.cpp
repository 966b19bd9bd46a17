#include "store/sqlite_writer.h"

#include <algorithm>
#include <optional>
#include <sqlite3.h>

namespace halvane::server {

namespace {

// Pages of 4 KiB: from the first on the log is copied into the database beside the writes; at the second the
// writer waits for that.
constexpr int backgroundCheckpointPages = 4000;
constexpr int forcedCheckpointPages = 16'384;

// What it has written stays valid: nobody else writes but the commands of an administrator.
constexpr const char* cacheSize = "PRAGMA cache_size=-8000";

int rememberWalPages(void* pages, sqlite3*, const char*, int count) {
    *static_cast<int*>(pages) = count;
    return SQLITE_OK;
}

} // namespace

SqliteWriter::SqliteWriter(const std::string& path) : m_path(path), m_connection(path) {
    m_connection.execute(cacheSize);
    sqlite3_wal_hook(m_connection.database().getHandle(), rememberWalPages, &m_walPages);
    m_checkpointThread = std::thread([this] { checkpointMain(); });
    m_thread = std::thread([this] { threadMain(); });
}

SqliteWriter::~SqliteWriter() {
    {
        const std::lock_guard lock(m_mutex);
        m_stop = true;
    }
    m_wake.notify_one();
    m_wakeCheckpoint.notify_one();
    m_thread.join();
    m_checkpointThread.join();
}

void SqliteWriter::run(Durability durability, Work work) {
    std::vector<Work> works;
    works.push_back(std::move(work));
    submit(durability, std::move(works)).front().get();
}

void SqliteWriter::Pending::get() {
    if (const std::exception_ptr failure = m_failure.get())
        std::rethrow_exception(failure);
}

void SqliteWriter::submit(Durability durability, Work work, Done done) {
    const std::lock_guard lock(m_mutex);
    m_queue.push_back({durability, std::move(work), std::move(done)});
}

std::vector<SqliteWriter::Pending> SqliteWriter::submit(Durability durability, std::vector<Work> works) {
    std::vector<Pending> results;
    {
        const std::lock_guard lock(m_mutex);
        for (Work& work : works) {
            auto promise = std::make_shared<std::promise<std::exception_ptr>>();
            results.emplace_back(promise->get_future());
            m_queue.push_back({durability, std::move(work), [promise](std::exception_ptr failure) {
                                   promise->set_value(std::move(failure));
                               }});
        }
    }
    m_wake.notify_one();
    return results;
}

std::vector<SqliteWriter::Job> SqliteWriter::nextBatch() {
    std::unique_lock lock(m_mutex);
    m_wake.wait(lock, [this] { return m_stop || !m_queue.empty(); });
    const auto count = static_cast<std::ptrdiff_t>(std::min(m_queue.size(), maximumBatch));
    std::vector<Job> batch(std::make_move_iterator(m_queue.begin()),
                           std::make_move_iterator(m_queue.begin() + count));
    m_queue.erase(m_queue.begin(), m_queue.begin() + count);
    return batch;
}

void SqliteWriter::threadMain() {
    for (std::vector<Job> batch = nextBatch(); !batch.empty(); batch = nextBatch()) {
        process(batch);
        afterCommit();
    }
}

void SqliteWriter::process(std::vector<Job>& batch) {
    if (batch.size() > 1 && runTogether(batch))
        return;
    for (Job& job : batch)
        runAlone(job);
}

// False when the whole transaction failed and nothing of it happened; nobody has been told anything then.
bool SqliteWriter::runTogether(std::vector<Job>& batch) {
    std::vector<std::exception_ptr> failures(batch.size());
    const bool flushed = std::any_of(batch.begin(), batch.end(),
                                     [](const Job& job) { return job.durability == Durability::Flushed; });
    if (const std::exception_ptr failure =
            refusalOfTransaction(flushed ? Durability::Flushed : Durability::Relaxed)) {
        // They have waited for another process together, and not each once more.
        for (Job& job : batch)
            job.done(failure);
        return true;
    }
    try {
        for (std::size_t i = 0; i < batch.size(); ++i) {
            Query(m_connection, "SAVEPOINT member").run();
            try {
                batch[i].work(m_connection);
            } catch (...) {
                failures[i] = translatedCurrent();
                if (!m_connection.inTransaction())
                    return false;
                m_connection.execute("ROLLBACK TO member");
            }
            Query(m_connection, "RELEASE member").run();
        }
        Query(m_connection, "COMMIT").run();
    } catch (const SQLite::Exception&) {
        rollBack();
        return false;
    }
    for (std::size_t i = 0; i < batch.size(); ++i)
        batch[i].done(std::move(failures[i]));
    return true;
}

void SqliteWriter::runAlone(Job& job) {
    job.done(failureOf(job));
}

// Null when it is committed.
std::exception_ptr SqliteWriter::failureOf(const Job& job) {
    try {
        prepareTransaction(job.durability);
        job.work(m_connection);
        Query(m_connection, "COMMIT").run();
    } catch (...) {
        std::exception_ptr failure = translatedCurrent();
        rollBack();
        return failure;
    }
    return nullptr;
}

// Null when the transaction has begun.
std::exception_ptr SqliteWriter::refusalOfTransaction(Durability durability) {
    try {
        prepareTransaction(durability);
    } catch (...) {
        std::exception_ptr failure = translatedCurrent();
        rollBack();
        return failure;
    }
    return nullptr;
}

void SqliteWriter::prepareTransaction(Durability durability) {
    if (durability != m_synchronous) {
        m_connection.execute(durability == Durability::Flushed ? "PRAGMA synchronous=FULL"
                                                               : "PRAGMA synchronous=NORMAL");
        m_synchronous = durability;
    }
    Query(m_connection, "BEGIN IMMEDIATE").run();
    ++m_transaction;
}

void SqliteWriter::rollBack() {
    if (!m_connection.inTransaction())
        return;
    try {
        m_connection.execute("ROLLBACK");
    } catch (const SQLite::Exception&) { // SQLite has rolled back of its own accord
    }
}

std::exception_ptr SqliteWriter::translatedCurrent() {
    try {
        throw;
    } catch (const SQLite::Exception& error) {
        return std::make_exception_ptr(m_connection.translated(error));
    } catch (...) {
        return std::current_exception();
    }
}

void SqliteWriter::afterCommit() {
    if (m_walPages < backgroundCheckpointPages)
        return;
    if (m_walPages >= forcedCheckpointPages) {
        sqlite3_wal_checkpoint_v2(m_connection.database().getHandle(), nullptr, SQLITE_CHECKPOINT_RESTART,
                                  nullptr, nullptr);
        m_walPages = 0;
        return;
    }
    {
        const std::lock_guard lock(m_mutex);
        m_checkpointDue = true;
    }
    m_wakeCheckpoint.notify_one();
}

// A failed checkpoint loses nothing: the log stays and the next one tries again.
void SqliteWriter::checkpointMain() {
    std::optional<SqliteConnection> connection;
    std::unique_lock lock(m_mutex);
    while (true) {
        m_wakeCheckpoint.wait(lock, [this] { return m_stop || m_checkpointDue; });
        if (m_stop)
            return;
        m_checkpointDue = false;
        lock.unlock();
        if (!connection)
            connection.emplace(m_path);
        sqlite3_wal_checkpoint_v2(connection->database().getHandle(), nullptr, SQLITE_CHECKPOINT_PASSIVE,
                                  nullptr, nullptr);
        lock.lock();
    }
}

} // namespace halvane::server
