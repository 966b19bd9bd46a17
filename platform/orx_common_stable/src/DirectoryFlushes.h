#pragma once

#include "orx_common_stable_export.h"

#include "Error.h"

#include <QByteArray>
#include <QHash>
#include <QList>
#include <QString>

#include <memory>
#include <mutex>

class QObject;

namespace orx {

//! Directories that are flushed later, each once for all that came into it. Where a Scope is open FileCopy,
//! and with it FileUtils, notes the directory that a file or directory came into and does not flush it: what
//! it made is whole at once, and durable from the next flush() on. Thread: any.
class ORX_COMMON_STABLE_EXPORT DirectoryFlushes {
public:
    DirectoryFlushes() = default;
    //! Flushes what is left; failures are only logged.
    ~DirectoryFlushes();
    DirectoryFlushes(const DirectoryFlushes&) = delete;
    DirectoryFlushes& operator=(const DirectoryFlushes&) = delete;

    //! Those that wait.
    qsizetype count() const;
    struct Failure {
        QString directory;
        Error error;
    };
    //! Flushes those that wait when it is called, and blocks on the disk. Each waits until it was flushed or
    //! has failed, so that whoever gives up a flush that runs can have it again. Returns those that could not
    //! be flushed and are there; they wait no more.
    QList<Failure> flush();

    //! Belongs to one thread and is about what that does; scopes close in the reverse of the order in which
    //! they were opened.
    class ORX_COMMON_STABLE_EXPORT Scope {
    public:
        //! Null: directories are flushed at once, also within another scope.
        explicit Scope(std::shared_ptr<DirectoryFlushes> flushes);
        ~Scope();
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        friend class DirectoryFlushes;
        std::shared_ptr<DirectoryFlushes> m_flushes;
        Scope* m_outer;
    };
    //! The file or directory \a path has got its name: has the innermost scope of this thread note the
    //! directory that it is in, or flushes that.
    static Error flushOrNoteName(const QByteArray& path);

    //! What the end of the task \a task (BaseTask::doFinish()) makes on the disk is noted there.
    static void attach(QObject& task, const std::shared_ptr<DirectoryFlushes>& flushes);
    //! Null unless something was attached.
    static std::shared_ptr<DirectoryFlushes> of(const QObject& task);

private:
    struct Note {
        //! What came into it last.
        QByteArray path;
        quint64 number;
    };
    void note(const QByteArray& path);
    //! Unless it was noted once more meanwhile.
    void forget(const QString& directory, quint64 number);

    mutable std::mutex m_mutex;
    //! The last note of each.
    QHash<QString, Note> m_directories;
    quint64 m_notes = 0;
};

} // namespace orx
