#pragma once

#include "orx_qt_shared_libs_core_export.h"

#include <QChar>
#include <QString>

namespace orx {

//! Names that may stand in a file system on any machine that data may be carried to. Thread: any.
class ORX_QT_SHARED_LIBS_CORE_EXPORT FileUtilsGeneric {
public:
    //! The longest name, in bytes of UTF-8.
    static constexpr int MAX_NAME_BYTES = 255;

    //! Whether \a name may be the name of one file or directory everywhere: not empty, not "." or "..", at
    //! most MAX_NAME_BYTES, valid Unicode, without control characters and without / \ : * ? " < > |, not
    //! ending with a dot or a blank. Device names that single systems reserve ("con") are accepted.
    static bool isValidFileName(const QString& name);

    //! \a name when it is valid, else a valid name made of it: every character that may not stand is replaced
    //! by \a replacement, then the name is cut to MAX_NAME_BYTES between characters. Nothing but invalid
    //! characters is changed in a name that is short enough; an empty name becomes one replacement. Different
    //! names may give the same one. A \a replacement that may not stand itself, or a half of a surrogate
    //! pair, counts as '_'.
    static QString validFileName(const QString& name, QChar replacement = u'_');
};

} // namespace orx
