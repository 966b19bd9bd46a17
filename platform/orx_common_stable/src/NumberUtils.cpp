#include "NumberUtils.h"

namespace orx {

Result<int> NumberUtils::toInt(const QString& text) {
    bool ok = false;
    const int number = text.toInt(&ok);
    if (!ok)
        return Error(ErrorCode::InvalidArgument, QStringLiteral("%1 is not an integer number").arg(text));
    return number;
}

} // namespace orx
