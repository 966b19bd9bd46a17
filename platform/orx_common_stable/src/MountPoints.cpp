#include "MountPoints.h"

namespace orx {

namespace {

//! Of the fields of a line, counted from zero.
constexpr qsizetype fieldOfMountPoint = 4;

bool isOctal(char digit) {
    return digit >= '0' && digit <= '7';
}

// Blanks, line ends and backslashes in names are written as \ooo.
QByteArray decoded(const QByteArray& field) {
    QByteArray bytes;
    for (qsizetype at = 0; at < field.size(); ++at) {
        const bool isEscape = field[at] == '\\' && at + 3 < field.size() && isOctal(field[at + 1]) &&
                              isOctal(field[at + 2]) && isOctal(field[at + 3]);
        bytes += isEscape ? char(field.mid(at + 1, 3).toInt(nullptr, 8)) : field[at];
        at += isEscape ? 3 : 0;
    }
    return bytes;
}

} // namespace

MountPoints::MountPoints(const QByteArray& mountinfo) {
    for (const QByteArray& line : mountinfo.split('\n')) {
        const QList<QByteArray> fields = line.split(' ');
        if (fields.size() > fieldOfMountPoint)
            m_points.append(decoded(fields[fieldOfMountPoint]));
    }
}

QByteArray MountPoints::within(const QByteArray& path) const {
    for (const QByteArray& point : m_points) {
        if (point == path || point.startsWith(path + '/'))
            return point;
    }
    return {};
}

} // namespace orx
