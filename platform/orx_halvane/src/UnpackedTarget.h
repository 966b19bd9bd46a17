#pragma once

#include <Error.h>
#include <VonkMetadata.h>

#include <functional>

namespace orx {

//! The place where a packed acquisition is unpacked, or kept as a file. Links are not followed. Blocks on the
//! disk; thread: any, a worker.
class UnpackedTarget {
public:
    enum class Found { Nothing, Directory, File, Other };
    //! What may give way: nothing; files and links; whatever there is.
    enum class Replace { Nothing, Files, Everything };

    explicit UnpackedTarget(const QString& path) : m_path(path) {}

    //! What cannot be looked at is Other.
    Found look() const;
    //! Whether the directory holds \a entries with their contents and nothing else; times do not count.
    //! False also when \a isCanceled says so meanwhile.
    bool holdsExactly(const QList<vonk::VonkEntry>& entries, const std::function<bool()>& isCanceled) const;
    //! Gives the file or directory \a source, which lies beside it and is durable, this name. What may give
    //! way is exchanged with it in one step and removed then (where the file system cannot do that, a
    //! directory takes the place of nothing but what may be lost, in two steps). ErrorCode::AlreadyExists for
    //! what may not give way, which stays as it is.
    Error place(const QString& source, Replace replace) const;
    //! That error.
    Error taken() const;

private:
    int exchange(const QByteArray& source, Replace replace) const;

    const QString m_path;
};

} // namespace orx
