// How the SQLite catalogue runs the calls of a small upload.
#pragma once

#include "store/sqlite_access.h"
#include "store/sqlite_catalog.h"

namespace halvane::server {

template <typename Result>
using SmallResult = std::variant<std::monostate, Result, ApiError>;

// Submits `work`, done as the holder of the token: SmallResult<Result>(SqliteConnection&, const Caller&).
template <typename Result, typename Work>
void submitSmall(SqliteWriter& writer, Durability durability, const Sha256Digest& token, Work work,
                 SmallDone<Result> done) {
    const auto outcome = std::make_shared<SmallOutcome<Result>>();
    auto run = [outcome, token, work = std::move(work)](SqliteConnection& connection) {
        *outcome = {};
        const auto caller = findCaller(connection, token, currentTime());
        if (!caller)
            return;
        outcome->user = caller->name;
        outcome->result = work(connection, *caller);
    };
    auto end = [outcome, &writer, done = std::move(done)](const std::exception_ptr& failure) {
        outcome->transaction = writer.transaction();
        try {
            if (failure)
                std::rethrow_exception(failure);
        } catch (const ApiError& error) {
            outcome->result = error;
        } catch (const std::exception& error) {
            outcome->result = ApiError(ErrorCode::Internal, error.what());
        }
        done(std::move(*outcome));
    };
    writer.submit(durability, std::move(run), std::move(end));
}

} // namespace halvane::server
