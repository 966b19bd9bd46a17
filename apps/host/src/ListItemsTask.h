#pragma once

#include "RemoteItem.h"

#include <ComplexTask.h>

namespace halvane::host {

//! What `ls` shows: the folders and files of a folder, or the one file that was named. Errors: those of
//! ResolveItemTask and of the listings. Thread: that of the object.
class HALVANE_HOST_EXPORT ListItemsTask : public orx::ComplexTask {
    Q_OBJECT
public:
    explicit ListItemsTask(const QString& text, QObject* parent = nullptr);
    ~ListItemsTask() override;

    //! After success: folders before files, each in the order of their names (then ids), with their remote
    //! paths.
    const QList<RemoteItem>& items() const { return m_items; }

protected:
    orx::Error initialize() override;

private:
    void onResolved(const RemoteItem& item);
    void findPathOfFile(const RemoteItem& file);
    void listFolders(const RemoteItem& folder);
    void listFiles(const RemoteItem& folder);

    QString m_text;
    QList<RemoteItem> m_items;
};

} // namespace halvane::host
