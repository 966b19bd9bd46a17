#pragma once

#include "halvane_host_export.h"

#include <WorkerStepTask.h>

#include <QFileInfo>

#include <memory>

namespace halvane::host {

//! One job of a worker reads so much, so that an interruption is heard between two.
constexpr qint64 readAtATime = 256 * 1024 * 1024;

//! A link that leads nowhere is there too.
bool isThere(const QFileInfo& info);

//! Whether a retrieval failed here: neither at the server or on the way to it, nor because somebody asked it
//! to stop. What the server sent and what it said of it is the server's matter too.
bool failedHere(const orx::Error& error);

//! Whether a file can come to \a target at all, said before anything is fetched: ErrorCode::FileNotWritable.
orx::Error checkFilePlace(const QFileInfo& target);
//! The same for a directory, which joins one that is there.
orx::Error checkDirectoryPlace(const QFileInfo& target);
//! ErrorCode::StorageFull when there is no room for \a size bytes more beside \a target.
orx::Error checkRoom(const QFileInfo& target, qint64 size);
//! Tells what is at \a path, a directory with all that is in it, from whatever else is there later and from
//! what became of it since. Of a link the link itself; nothing at all has a stamp too. Reads no content.
QByteArray stampOfPlace(const QString& path);
//! Of the files in the directory \a path, hidden ones and those further down included; 0 when there is none.
qint64 bytesIn(const QString& path);

//! Removes the partial file \a path, which nobody wants any more; not one that another download has open.
//! Where that fails it stays for a later run.
HALVANE_HOST_EXPORT void removePartial(const QString& path);
//! Gives the partial file \a path the name \a to, so that what is in it need not be fetched again. One of
//! that name stays, and the other is removed then; one that another download has open keeps its name.
HALVANE_HOST_EXPORT orx::Error renamePartial(const QString& path, const QString& to);

std::unique_ptr<orx::BaseTask> workerStep(const QString& name, orx::WorkerStepTask::Job job);

} // namespace halvane::host
