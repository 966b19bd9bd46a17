#pragma once

#include <VonkMetadata.h>

#include <QJsonObject>
#include <QStringList>

#include <functional>

namespace halvane::cli {

//! What is known of a packed acquisition, or of raw data.
struct Inspection {
    //! Absolute; empty for what is on the server.
    QString path;
    bool isPacked = false;
    //! Bytes of the packed file; 0 for raw data.
    qint64 size = 0;
    //! Of raw data: its files beside it.
    QStringList companions;
    //! Of raw data only name, kind and summary.
    orx::vonk::VonkMetadata metadata;
    //! Of what is on the server: "file:12@3".
    QString reference = {};
};

//! How names are shown.
using Shown = std::function<QString(const QString&)>;

qsizetype fileCountOf(const orx::vonk::VonkMetadata& metadata);
//! "12 files, 3.4 MiB".
QString contentText(const orx::vonk::VonkMetadata& metadata);
//! What every object of a packed acquisition has: all but entries and summary.
QJsonObject jsonOfPacked(const QString& path, qint64 size, const orx::vonk::VonkMetadata& metadata);

QJsonObject jsonOf(const Inspection& inspection);
QList<QStringList> rowsOf(const Inspection& inspection, const Shown& shown);
//! Size, time and path of each entry.
QList<QStringList> entryRows(const orx::vonk::VonkMetadata& metadata, const Shown& shown);

} // namespace halvane::cli
