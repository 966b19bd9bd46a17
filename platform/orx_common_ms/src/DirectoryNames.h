#pragma once

#include <QByteArray>
#include <QString>

#include <functional>
#include <map>
#include <optional>
#include <vector>

namespace orx {

//! The names in a directory, found again whatever the case of their letters. A copy of the moment.
class DirectoryNames {
public:
    //! The most entries that are looked at: acquisitions have far fewer.
    static constexpr int MAX_ENTRIES = 65536;

    //! Absent, with errno set, when the directory cannot be listed.
    static std::optional<DirectoryNames> of(const QByteArray& directory);

    //! The names that are \a name but for the case of letters, the one that is equal first.
    std::vector<QByteArray> find(const QString& name) const;
    //! The names whose lower-case form \a accepts.
    std::vector<QByteArray> findIf(const std::function<bool(const QString&)>& accepts) const;

private:
    std::multimap<QString, QByteArray> m_byLowerCase;
};

} // namespace orx
