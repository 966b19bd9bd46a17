#pragma once

#include "ExtendableEnum.h"
#include "orx_qt_shared_libs_core_export.h"

#include <QList>
#include <QString>
#include <QStringList>

namespace orx {

//! The types of files that the system knows, told by the extension of a name. Letter case of extensions is
//! ignored. Only the name counts: nothing is read, and a path need not exist. Thread: any.
class ORX_QT_SHARED_LIBS_CORE_EXPORT FileTypes {
public:
    struct FileTypeData {
        QString name;           //!< for people; also what tells types of the same extensions apart
        QStringList extensions; //!< without the leading dot, the preferred one first; may hold inner dots

        bool operator==(const FileTypeData&) const = default;
    };
    using Type = ExtendableEnumRef<FileTypeData>;

    static const Type VONK;    //!< packed acquisition: "vonk"
    static const Type MZML;    //!< "mzML", "mzML.gz"
    static const Type MZXML;   //!< "mzXML"
    static const Type MGF;     //!< "mgf"
    static const Type IMZML;   //!< "imzML"
    static const Type UNKNOWN; //!< every extension that no type has; itself without extensions

    //! Adds a type; one of the same name and extensions gives the type that is there. Extensions that a type
    //! added earlier has stay with that one in fileToType(); when one extension ends in another, the longer
    //! wins.
    static Type addType(const QString& name, const QStringList& extensions);
    //! All types but UNKNOWN, in the order in which they were added.
    static QList<Type> types();

    //! The type of a file of this name or path; UNKNOWN when no type has its extension, when it has none, and
    //! when it is nothing but an extension (".vonk" is a hidden file without one).
    static Type fileToType(const QString& fileName);
    static Type fileType(const QString& fileName) { return fileToType(fileName); }
    static Type fileTypeFromName(const QString& fileName) { return fileToType(fileName); }

    //! Whether \a path has an extension of one of \a types. False for an empty list; a null value and UNKNOWN
    //! match nothing.
    static bool fileMatchesAnyType(const QString& path, const QList<Type>& types);

    //! \a name with the preferred extension of \a type appended, unless it has one of that type's extensions
    //! already (then unchanged, also in letter case). Never replaces another extension: "run.raw" becomes
    //! "run.raw.vonk". Unchanged for a null or unknown type.
    static QString addMissingExtension(const QString& name, const Type& type);
    //! The same: the name of a file of this type.
    static QString fileName(const QString& name, const Type& type) { return addMissingExtension(name, type); }
};

} // namespace orx
