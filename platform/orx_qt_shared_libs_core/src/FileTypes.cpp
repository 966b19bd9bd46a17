#include "FileTypes.h"

#include <algorithm>

namespace orx {

namespace {

//! Made on first use, so that types may be added while other static objects are being made.
ExtendableEnum<FileTypes::FileTypeData>& registry() {
    static ExtendableEnum<FileTypes::FileTypeData> types;
    return types;
}

FileTypes::Type unknownType() {
    static const FileTypes::FileTypeData record{QStringLiteral("unknown"), {}};
    return FileTypes::Type(&record);
}

QStringView lastPart(const QString& path) {
    return QStringView(path).mid(path.lastIndexOf(u'/') + 1);
}

//! The length of the longest extension of \a type that \a name has after something else; 0 without any.
qsizetype matchLength(QStringView name, const FileTypes::FileTypeData& type) {
    qsizetype longest = 0;
    for (const QString& extension : type.extensions) {
        const qsizetype dot = name.size() - extension.size() - 1;
        if (dot > 0 && name[dot] == u'.' && name.endsWith(extension, Qt::CaseInsensitive))
            longest = std::max(longest, extension.size());
    }
    return longest;
}

} // namespace

const FileTypes::Type FileTypes::VONK = addType(QStringLiteral("vonk"), {QStringLiteral("vonk")});
const FileTypes::Type FileTypes::MZML =
    addType(QStringLiteral("mzML"), {QStringLiteral("mzML"), QStringLiteral("mzML.gz")});
const FileTypes::Type FileTypes::MZXML = addType(QStringLiteral("mzXML"), {QStringLiteral("mzXML")});
const FileTypes::Type FileTypes::MGF = addType(QStringLiteral("MGF"), {QStringLiteral("mgf")});
const FileTypes::Type FileTypes::IMZML = addType(QStringLiteral("imzML"), {QStringLiteral("imzML")});
const FileTypes::Type FileTypes::UNKNOWN = unknownType();

FileTypes::Type FileTypes::addType(const QString& name, const QStringList& extensions) {
    QStringList usable = extensions;
    usable.removeAll(QString()); // an empty one would match every name that ends with a dot
    return registry().add({name, usable});
}

QList<FileTypes::Type> FileTypes::types() {
    return registry().values();
}

FileTypes::Type FileTypes::fileToType(const QString& fileName) {
    const QStringView name = lastPart(fileName);
    Type best = unknownType();
    qsizetype longest = 0;
    for (const Type& type : registry().values()) {
        if (const qsizetype length = matchLength(name, *type); length > longest) {
            longest = length;
            best = type;
        }
    }
    return best;
}

bool FileTypes::fileMatchesAnyType(const QString& path, const QList<Type>& types) {
    const QStringView name = lastPart(path);
    return std::any_of(types.begin(), types.end(),
                       [name](const Type& type) { return !type.isNull() && matchLength(name, *type) > 0; });
}

QString FileTypes::addMissingExtension(const QString& name, const Type& type) {
    if (type.isNull() || type->extensions.isEmpty() || matchLength(lastPart(name), *type) > 0)
        return name;
    return name + u'.' + type->extensions.first();
}

} // namespace orx
