#include "PackedPaths.h"

#include "PackedText.h"

#include <QHash>
#include <QStringList>

#include <algorithm>

namespace orx::vonk {

namespace {

constexpr int longestComponent = 255;
constexpr int longestPath = 4000;
constexpr int deepestPath = 64;

bool isControl(QChar c) {
    return c.unicode() < 0x20 || (c.unicode() >= 0x7f && c.unicode() <= 0x9f);
}

bool hasDriveLetter(const QString& component) {
    return component.size() >= 2 && component[1] == QLatin1Char(':') && component[0] < QLatin1Char('\x7f') &&
           component[0].isLetter();
}

//! Empty, or what is wrong.
QString faultOfComponent(const QString& component) {
    if (component.isEmpty())
        return translated("it has an empty component");
    if (component == QLatin1String(".") || component == QLatin1String(".."))
        return translated("it has the component \"%1\"").arg(component);
    if (hasDriveLetter(component))
        return translated("it has a drive letter");
    if (component.contains(QLatin1Char('\\')))
        return translated("it has a backslash");
    if (std::any_of(component.begin(), component.end(), isControl))
        return translated("it has a control character");
    if (component.toUtf8().size() > longestComponent)
        return translated("one of its names is longer than %1 bytes").arg(longestComponent);
    return {};
}

QString faultOfPath(const QString& path) {
    if (!path.isValidUtf16())
        return translated("it is not valid text");
    if (!path.startsWith(contentPrefix()))
        return translated("it does not begin with \"%1\"").arg(contentPrefix());
    if (path.toUtf8().size() > longestPath)
        return translated("it is longer than %1 bytes").arg(longestPath);
    const QStringList components = path.split(QLatin1Char('/'));
    if (components.size() > deepestPath)
        return translated("it has more than %1 components").arg(deepestPath);
    for (const QString& component : components) {
        if (const QString fault = faultOfComponent(component); !fault.isEmpty())
            return fault;
    }
    return {};
}

//! Equal for names that some file system takes for one. Folding undoes the normal form, hence twice.
QString folded(const QString& name) {
    return name.normalized(QString::NormalizationForm_C)
        .toCaseFolded()
        .normalized(QString::NormalizationForm_C);
}

Error refused(const QString& path, const QString& fault) {
    return Error(ErrorCode::InvalidArgument,
                 translated("A packed acquisition cannot hold the path \"%1\": %2.").arg(path, fault));
}

//! The files and directories of an acquisition, also those that only lie on the way to others.
class Places {
public:
    Error add(const VonkEntry& entry) {
        const QStringList components = entry.path.split(QLatin1Char('/'));
        QString key;
        qsizetype end = -1;
        for (qsizetype i = 0; i + 1 < components.size(); ++i) {
            key += QLatin1Char('/') + folded(components[i]);
            end += components[i].size() + 1;
            auto place = m_places.find(key);
            if (place == m_places.end())
                place = m_places.insert(key, {entry.path.left(end)});
            if (place->isFile)
                return refused(entry.path, translated("it lies below a file"));
            if (place->spelling != entry.path.left(end))
                return refused(entry.path, twice());
        }
        key += QLatin1Char('/') + folded(components.last());
        return claim(entry, key);
    }

private:
    struct Place {
        QString spelling;
        bool isFile = false;
        bool isEntry = false;
    };

    static QString twice() {
        return translated("it is there twice, or another path differs from it in letter case only");
    }

    Error claim(const VonkEntry& entry, const QString& key) {
        const auto found = m_places.find(key);
        if (found == m_places.end()) {
            m_places.insert(key, {entry.path, entry.isFile(), true});
            return {};
        }
        if (found->isEntry || found->spelling != entry.path)
            return refused(entry.path, twice());
        if (entry.isFile())
            return refused(entry.path, translated("it is a file, and others lie below it"));
        found->isEntry = true;
        return {};
    }

    QHash<QString, Place> m_places;
};

} // namespace

QString contentPrefix() {
    return QStringLiteral("content/");
}

Error checkEntryPath(const QString& path) {
    const QString fault = faultOfPath(path);
    return fault.isEmpty() ? Error() : refused(path, fault);
}

Error checkEntryPaths(const QList<VonkEntry>& entries) {
    if (entries.isEmpty())
        return Error(ErrorCode::InvalidArgument,
                     translated("A packed acquisition cannot be without entries."));
    Places places;
    for (const VonkEntry& entry : entries) {
        ORX_RETURN_ON_ERROR(checkEntryPath(entry.path));
        ORX_RETURN_ON_ERROR(places.add(entry));
    }
    return {};
}

bool entryComesBefore(const VonkEntry& first, const VonkEntry& second) {
    const auto rank = [](char c) { return c == '/' ? 0 : int(static_cast<unsigned char>(c)); };
    const QByteArray a = first.path.toUtf8();
    const QByteArray b = second.path.toUtf8();
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(),
                                        [&](char x, char y) { return rank(x) < rank(y); });
}

} // namespace orx::vonk
