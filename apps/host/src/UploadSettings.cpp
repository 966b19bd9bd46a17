#include "UploadSettings.h"

#include "Quantities.h"

#include <HalvanePaths.h>

#include <QFile>
#include <QFileInfo>
#include <QSettings>

namespace halvane::host {

using orx::Error;
using orx::ErrorCode;
using orx::Result;
using orx::UploadFilters;

namespace {

Error unusable(const QString& path, const QString& why) {
    return Error(ErrorCode::ParseError,
                 QStringLiteral("The settings in \"%1\" cannot be used: %2").arg(path, why));
}

// QSettings takes "a, b" apart, and leaves "a" a text.
QStringList listOf(const QVariant& value) {
    QStringList found;
    const QStringList texts = value.toStringList();
    for (const QString& text : texts) {
        if (!text.trimmed().isEmpty())
            found.append(text.trimmed());
    }
    return found;
}

Error readTime(const QString& text, std::chrono::milliseconds& time) {
    const auto parsed = parseAge(text);
    ORX_RETURN_ON_ERROR(parsed.error());
    time = parsed.value();
    return {};
}

Error readKey(const QString& key, const QVariant& value, UploadFilters& filters) {
    if (key == u"filters/allowed_extensions") {
        filters.allowedExtensions = listOf(value);
        return {};
    }
    if (key == u"filters/excluded_names") {
        filters.excludedNames = listOf(value);
        return {};
    }
    if (key == u"acquisitions/quiet_time")
        return readTime(value.toString(), filters.quietTime);
    if (key == u"acquisitions/patience")
        return readTime(value.toString(), filters.patience);
    return Error(ErrorCode::ParseError, QStringLiteral("the key \"%1\" is not known.").arg(key));
}

} // namespace

Result<UploadFilters> uploadFilters() {
    const QString path = orx::HalvanePaths::configDir() + QStringLiteral("/upload.ini");
    UploadFilters filters;
    if (!QFileInfo::exists(path))
        return filters;
    if (QFile file(path); !file.open(QIODevice::ReadOnly))
        return Error(
            ErrorCode::FileNotReadable,
            QStringLiteral("The settings in \"%1\" cannot be read: %2.").arg(path, file.errorString()));
    const QSettings settings(path, QSettings::IniFormat);
    if (settings.status() != QSettings::NoError)
        return unusable(path, QStringLiteral("this is no INI file."));
    const QStringList keys = settings.allKeys();
    for (const QString& key : keys) {
        if (const Error error = readKey(key, settings.value(key), filters); error.hasError())
            return unusable(path, error.errorMessage());
    }
    return filters;
}

} // namespace halvane::host
