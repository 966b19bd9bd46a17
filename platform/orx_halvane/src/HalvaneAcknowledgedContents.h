#pragma once

#include "orx_halvane_export.h"

#include <QByteArray>
#include <QString>

namespace orx {

//! The checksums that servers stated in this process and that what was sent or received was compared with:
//! for who wants to know whether a copy is what the server has. Bounded; what was recorded first goes first.
//! Thread: any.
class ORX_HALVANE_EXPORT HalvaneAcknowledgedContents {
public:
    static constexpr qsizetype maxContents = 100'000;

    //! \a serverKey: HalvaneConnection::serverKey(); \a sha256: 64 hexadecimal digits, anything else is not
    //! recorded.
    static void record(const QString& serverKey, int fileId, int version, const QByteArray& sha256);
    //! Lower-case hexadecimal digits; empty when nothing is known.
    static QByteArray find(const QString& serverKey, int fileId, int version);
};

} // namespace orx
