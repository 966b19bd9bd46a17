#include "IdsText.h"

#include <NumberUtils.h>

#include <QStringList>

namespace orx {

QString IdsText::fromIds(const QList<int>& ids) {
    QStringList parts;
    for (const int id : ids)
        parts.append(QString::number(id));
    return parts.join(u',');
}

Result<QList<int>> IdsText::toIds(const QString& text) {
    QList<int> ids;
    const QStringList parts = text.split(u',', Qt::SkipEmptyParts);
    for (const QString& part : parts) {
        const Result<int> id = NumberUtils::toInt(part);
        if (id.hasError())
            return id.error();
        ids.append(*id);
    }
    return ids;
}

} // namespace orx
