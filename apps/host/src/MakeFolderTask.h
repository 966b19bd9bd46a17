#pragma once

#include "RemoteItem.h"
#include "RemotePath.h"

#include <ComplexTask.h>

namespace halvane::host {

//! Makes a folder at a remote path. Fails with ErrorCode::InvalidArgument for what is no path and with
//! ErrorCode::AlreadyExists when the folder is there (not with Parents). Thread: that of the object.
class HALVANE_HOST_EXPORT MakeFolderTask : public orx::ComplexTask {
    Q_OBJECT
public:
    enum class Parents {
        MustExist,
        //! Missing folders above are made too, and a folder that is there already is a success.
        Make
    };

    MakeFolderTask(const QString& path, Parents parents, QObject* parent = nullptr);
    ~MakeFolderTask() override;

    //! The folders made, outermost first; after a failure those made before it.
    const QList<RemoteItem>& createdFolders() const { return m_created; }
    //! After success: the folder at the path, made or found.
    const RemoteItem& folder() const { return m_folder; }

    //! The check of the path alone, without a call.
    static orx::Result<RemotePath> checkPath(const QString& path);

protected:
    orx::Error initialize() override;

private:
    void step(const RemoteItem& parentFolder, qsizetype depth);
    void create(const RemoteItem& parentFolder, qsizetype depth);

    QString m_text;
    Parents m_parents;
    RemotePath m_path;
    QList<RemoteItem> m_created;
    RemoteItem m_folder;
};

} // namespace halvane::host
