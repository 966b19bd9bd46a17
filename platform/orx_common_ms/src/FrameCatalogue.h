#pragma once

#include <Result.h>

#include <QString>

#include <memory>
#include <stop_token>
#include <string>

struct sqlite3;
struct sqlite3_stmt;

namespace orx {

//! The catalogue of an acquisition, opened so that nothing is written, locked or made beside it. What it
//! holds is trusted no more than any file: a statement that works too long is ended. One thread at a time.
class FrameCatalogue {
public:
    //! One statement's rows, in order.
    class Rows {
    public:
        ~Rows();
        Q_DISABLE_COPY_MOVE(Rows)
        //! Steps to the next row; false after the last.
        Result<bool> next();
        bool isNull(int column) const;
        double number(int column) const;
        qint64 integer(int column) const;
        QString text(int column) const; //!< at most 1000 characters

    private:
        friend class FrameCatalogue;
        Rows(FrameCatalogue& catalogue, sqlite3_stmt* statement)
            : m_catalogue(catalogue), m_statement(statement) {}

        FrameCatalogue& m_catalogue;
        sqlite3_stmt* m_statement;
    };

    //! \a mostSteps: instructions of the database engine after which statements fail.
    static Result<std::unique_ptr<FrameCatalogue>> open(const QString& path, const std::stop_token& stop,
                                                        qint64 mostSteps);
    ~FrameCatalogue();
    Q_DISABLE_COPY_MOVE(FrameCatalogue)

    Result<std::unique_ptr<Rows>> query(const char* sql);
    //! ErrorCode::ParseError when \a name is a view or something else that works out its rows, or has columns
    //! that are worked out: that may take any amount of memory and time.
    Error checkIsTable(const char* name);
    //! The value of a key of the table GlobalMetadata; empty when it has none.
    Result<QString> property(const QString& key);

private:
    FrameCatalogue() = default;
    static int onProgress(void* self);
    Error checkHasItsValues(const char* name);
    Error failure() const;
    static Error unreadable(const QString& why);

    sqlite3* m_database = nullptr;
    std::stop_token m_stop;
    qint64 m_mostSteps = 0;
    qint64 m_steps = 0;
};

} // namespace orx
