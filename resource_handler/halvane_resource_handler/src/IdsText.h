#pragma once

#include <Result.h>

#include <QList>

namespace orx {

//! Lists of ids as metadata JSON holds them: decimal numbers joined with ",".
class IdsText {
public:
    static QString fromIds(const QList<int>& ids);
    //! Empty parts are skipped. The first part that is no whole number fails with
    //! ErrorCode::InvalidArgument and "%1 is not an integer number".
    static Result<QList<int>> toIds(const QString& text);
};

} // namespace orx
