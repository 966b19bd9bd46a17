#pragma once

#include <QDateTime>
#include <QString>

namespace halvane::cli {

//! What questions show on a terminal.
class QuestionText {
public:
    //! On standard error, at once.
    static void print(const QString& text);
    //! A line that shows one side of a clash: \a name is what it is called, \a what tells more of it.
    static QString side(const char* name, const QString& size, const QDateTime& time, const QString& what);
};

} // namespace halvane::cli
