#include "HalvaneResourceReference.h"

#include <QCoreApplication>

#include <algorithm>
#include <limits>
#include <optional>

namespace orx {

namespace {

QString translated(const char* text) {
    return QCoreApplication::translate("orx::HalvaneResourceReference", text);
}

Error badNumber(const char* what, int number) {
    return Error(ErrorCode::InvalidArgument,
                 translated(what).arg(number) + u' ' +
                     translated("It must be a number from 1 to %1.").arg(std::numeric_limits<int>::max()));
}

constexpr QStringView kFilePrefix = u"file:";
constexpr QStringView kFolderPrefix = u"folder:";

//! A number from 1 on in its only spelling: ASCII digits without a sign, blanks or leading zeros.
std::optional<int> parsePositive(QStringView digits) {
    const bool onlyDigits =
        std::all_of(digits.begin(), digits.end(), [](QChar c) { return c >= u'0' && c <= u'9'; });
    if (digits.isEmpty() || !onlyDigits || digits.front() == u'0')
        return std::nullopt;
    bool fits = false;
    const int number = digits.toInt(&fits);
    return fits ? std::optional(number) : std::nullopt;
}

Error badText(const QString& text, const QString& reason) {
    return Error(
        ErrorCode::InvalidArgument,
        translated("\"%1\" is not a reference: %2 References are written file:12, file:12@3 (version 3) "
                   "or folder:7.")
            .arg(text, reason));
}

} // namespace

HalvaneResourceReference::HalvaneResourceReference(int id, ItemType itemType, const QString& name)
    : m_id(id), m_itemType(itemType), m_name(name) {}

QString HalvaneResourceReference::displayText() const {
    return m_name + QStringLiteral(" (") + toText() + u')';
}

Result<HalvaneFileResourceReferenceSPtr> HalvaneFileResourceReference::create(int id, int version,
                                                                              const QString& name, FileKind,
                                                                              const QString& variant) {
    if (id < 1)
        return ORX_ECATCH(badNumber("%1 is not the id of a file.", id));
    if (version < 1)
        return ORX_ECATCH(badNumber("%1 is not the version of a file.", version));
    if (name.isEmpty())
        return ORX_ECATCH(Error(ErrorCode::InvalidArgument,
                                translated("The file with the id %1 was given no name.").arg(id)));
    return HalvaneFileResourceReferenceSPtr(new HalvaneFileResourceReference(id, version, name, variant));
}

HalvaneFileResourceReference::HalvaneFileResourceReference(int id, int version, const QString& name,
                                                           const QString& variant)
    : HalvaneResourceReference(id, ItemType::File, name), m_version(version), m_variant(variant) {}

QString HalvaneFileResourceReference::toText() const {
    return QStringLiteral("file:%1@%2").arg(id()).arg(m_version);
}

Result<HalvaneFolderResourceReferenceSPtr> HalvaneFolderResourceReference::create(int id,
                                                                                  const QString& name) {
    if (id < 1)
        return ORX_ECATCH(badNumber("%1 is not the id of a folder.", id));
    return HalvaneFolderResourceReferenceSPtr(new HalvaneFolderResourceReference(id, name));
}

HalvaneFolderResourceReference::HalvaneFolderResourceReference(int id, const QString& name)
    : HalvaneResourceReference(id, ItemType::Folder, name) {}

QString HalvaneFolderResourceReference::toText() const {
    return QStringLiteral("folder:%1").arg(id());
}

bool HalvaneReferenceText::looksLikeReference(const QString& text) {
    return text.startsWith(kFilePrefix) || text.startsWith(kFolderPrefix);
}

Result<HalvaneReferenceText> HalvaneReferenceText::parse(const QString& text) {
    if (!looksLikeReference(text))
        return ORX_ECATCH(badText(text, translated("it begins with neither \"file:\" nor \"folder:\".")));
    const bool isFile = text.startsWith(kFilePrefix);
    const QStringView rest = QStringView(text).mid(isFile ? kFilePrefix.size() : kFolderPrefix.size());
    const qsizetype at = rest.indexOf(u'@');
    if (!isFile && at >= 0)
        return ORX_ECATCH(badText(text, translated("folders have no versions.")));

    HalvaneReferenceText reference;
    using ItemType = HalvaneResourceReference::ItemType;
    reference.itemType = isFile ? ItemType::File : ItemType::Folder;
    const auto id = parsePositive(at < 0 ? rest : rest.left(at));
    if (!id)
        return ORX_ECATCH(badText(
            text,
            translated("the id is not a whole number from 1 to %1.").arg(std::numeric_limits<int>::max())));
    reference.id = *id;
    if (at < 0)
        return reference;
    const auto version = parsePositive(rest.mid(at + 1));
    if (!version)
        return ORX_ECATCH(badText(text, translated("the version is not a whole number from 1 to %1.")
                                            .arg(std::numeric_limits<int>::max())));
    reference.version = *version;
    return reference;
}

} // namespace orx
