#pragma once

#include <QCoreApplication>
#include <QString>

namespace orx::vonk {

//! Texts for people, in one translation context.
inline QString translated(const char* text) {
    return QCoreApplication::translate("orx::vonk", text);
}

} // namespace orx::vonk
