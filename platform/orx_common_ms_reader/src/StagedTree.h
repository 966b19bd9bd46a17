#pragma once

#include "DiskRoom.h"
#include "PackedFile.h"
#include "VonkMetadata.h"

#include <QStringList>

#include <memory>

namespace orx::vonk {

//! A directory that is filled beside its place under a hidden name and appears there complete and durable, or
//! not at all: what was not committed is gone with the object. Everything in it is made component by
//! component, and no link is ever followed.
class StagedTree {
public:
    //! ErrorCode::AlreadyExists when something is at \a path, FileNotWritable, and what DiskRoom::take() says
    //! of the entries.
    static Result<StagedTree> create(const QString& path, const QList<VonkEntry>& entries);
    ~StagedTree();
    StagedTree(StagedTree&& other) noexcept = default;

    //! Makes the directory, or the file that is written next. The path must have passed checkEntryPath().
    Error begin(const VonkEntry& entry);
    Error write(std::span<const char> bytes);
    Error endFile(const VonkEntry& entry);
    Error commit(const QList<VonkEntry>& entries);

private:
    StagedTree() = default;
    Error enter(const QString& directory);
    Error finishDirectories(const QList<VonkEntry>& entries);
    Error failure() const;

    QString m_path;
    QByteArray m_target;
    QByteArray m_staging;
    Descriptor m_root;
    //! The directory that was used last.
    Descriptor m_directory;
    QString m_directoryPath;
    Descriptor m_file;
    //! All that were made, outer ones first.
    QStringList m_directories;
    std::shared_ptr<DiskRoom> m_room;
};

} // namespace orx::vonk
