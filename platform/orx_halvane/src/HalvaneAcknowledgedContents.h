#pragma once

#include "orx_halvane_export.h"

#include <QByteArray>
#include <QDateTime>
#include <QString>

#include <optional>

namespace orx {

//! What servers stated in this process of the contents of versions, which never change: for who wants to know
//! whether a copy is what the server has, and for downloads, which need not ask again for what a listing
//! said. Bounded; what was recorded first goes first. Thread: any.
class ORX_HALVANE_EXPORT HalvaneAcknowledgedContents {
public:
    static constexpr qsizetype maxContents = 100'000;

    //! All that a download has to know, and what people want to know of it.
    struct Stated {
        qint64 size = 0;
        //! 64 hexadecimal digits.
        QByteArray sha256;
        //! The local file's time when it was sent; invalid when unknown.
        QDateTime sourceModifiedAt = {};
        //! When the version was made; invalid when unknown.
        QDateTime modifiedAt = {};
        QString alias = {};
    };

    //! \a serverKey: HalvaneConnection::serverKey(); \a sha256: 64 hexadecimal digits, anything else is not
    //! recorded.
    static void record(const QString& serverKey, int fileId, int version, const QByteArray& sha256);
    //! Lower-case hexadecimal digits; empty when nothing is known.
    static QByteArray find(const QString& serverKey, int fileId, int version);
    //! Records the checksum, too.
    static void recordStated(const QString& serverKey, int fileId, int version, const Stated& stated);
    //! Nothing unless recordStated() was called.
    static std::optional<Stated> findStated(const QString& serverKey, int fileId, int version);
    //! For who finds that it does not hold.
    static void forget(const QString& serverKey, int fileId, int version);
    static void clear();
};

} // namespace orx
