#pragma once

#include "RemoteItem.h"
#include "RemotePath.h"

#include <ComplexTask.h>
#include <HalvaneItemTasks.h>

namespace halvane::host {

//! What a person wrote - a remote path or a reference - to the one item that is meant. Thread: that of the
//! object.
//!
//! Fails with ErrorCode::InvalidArgument for a text of neither form (before any call), for an item of the
//! other kind than wanted, and for a path that several siblings of one name answer to: the message lists
//! their references, none is chosen. What does not exist, or may not be read, is the server's NotFound.
class HALVANE_HOST_EXPORT ResolveItemTask : public orx::ComplexTask {
    Q_OBJECT
public:
    enum class Wanted { Any, File, Folder };

    explicit ResolveItemTask(const QString& text, Wanted wanted, QObject* parent = nullptr);
    ~ResolveItemTask() override;

    //! After success. Files come in the version that was asked for, else in their last one. The path is
    //! empty when a reference was given.
    const RemoteItem& item() const { return m_item; }
    //! Whether the text asked for one version of a file.
    bool versionWasGiven() const { return m_versionWasGiven; }
    //! After a failure: several siblings answer to the path.
    bool foundSeveral() const { return m_candidates.size() > 1; }

    //! The check of the text alone, without a call.
    static orx::Error checkText(const QString& text);

protected:
    orx::Error initialize() override;

private:
    orx::Error startWithReference();
    void fetchFile(int id, int version);
    void fetchVersion(int version);
    void fetchFolder(int id);
    void descend(int folderId, const QString& folderPath, qsizetype depth);
    void lookUpLast(int folderId, const QString& folderPath);
    void addFolders(int folderId, const QString& folderPath, std::function<void()> next);
    void addFiles(int folderId, const QString& folderPath, std::function<void()> next);
    void findFolders(int folderId, const QString& folderPath, const QString& name,
                     std::function<void(const QList<RemoteItem>&)> next);
    void decide(const QString& folderPath);
    orx::Error checkKind(const RemoteItem& item) const;

    QString m_text;
    Wanted m_wanted;
    RemotePath m_path;
    QList<RemoteItem> m_candidates;
    RemoteItem m_item;
    bool m_versionWasGiven = false;
};

} // namespace halvane::host
