#pragma once

#include "orx_common_stable_export.h"

#include <QDir>
#include <QString>

namespace orx {

//! What a path names. The values are fixed.
enum class PathType : int { Unknown = 0, Dir = 1, File = 2 };

//! The text of a path and its kind as known at run time; base of the typed paths.
class ORX_COMMON_STABLE_EXPORT PathBase {
public:
    //! As given: neither cleaned nor made absolute.
    QString toString() const { return m_text; }
    bool isEmpty() const { return m_text.isEmpty(); }
    PathType type() const { return m_type; }
    //! A path below this one; \a relative is appended after one separator.
    QString child(const QString& relative) const;

    friend bool operator==(const PathBase&, const PathBase&) = default;

protected:
    PathBase() = default;
    PathBase(QString text, PathType type);

private:
    QString m_text;
    PathType m_type = PathType::Unknown;
};

//! A path whose kind is part of its type. A path of unknown kind may carry what is known at run time.
template <PathType Type>
class PathImpl : public PathBase {
public:
    PathImpl() : PathBase(QString(), Type) {}
    explicit PathImpl(const QString& text) : PathBase(text, Type) {}
    PathImpl(const QString& text, PathType runTimeType) requires(Type == PathType::Unknown)
        : PathBase(text, runTimeType) {}
    //! Every typed path is also one of unknown kind that remembers its own.
    template <PathType Other>
    requires(Type == PathType::Unknown && Other != PathType::Unknown) PathImpl(const PathImpl<Other>& other)
        : PathBase(other.toString(), Other) {}
};

using Path = PathImpl<PathType::Unknown>;
using DirPath = PathImpl<PathType::Dir>;
using FilePath = PathImpl<PathType::File>;

} // namespace orx
