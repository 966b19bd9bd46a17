#pragma once

#include <QCoreApplication>
#include <QString>

namespace orx {

//! A text for people, translated.
inline QString msText(const char* text) {
    return QCoreApplication::translate("orx::MsData", text);
}

} // namespace orx
