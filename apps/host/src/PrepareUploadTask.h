#pragma once

#include "LocalTree.h"
#include "RemoteItem.h"
#include "Uploads.h"

#include <ComplexTask.h>

#include <memory>
#include <stop_token>

namespace halvane::host {

//! Finds out what is to be uploaded and where to, before anything is sent: the target folder and what lies at
//! the paths. A path that is not there fails before any call (ErrorCode::NotFound), as one that lies in
//! another one and a target that is no reference do (ErrorCode::InvalidArgument); then errors of
//! ResolveItemTask. Thread: that of the object.
class HALVANE_HOST_EXPORT PrepareUploadTask : public orx::ComplexTask {
    Q_OBJECT
public:
    //! Uploads ask how much a directory holds, which is found out on a worker before that; a plan does not.
    enum class For { Upload, Plan };

    PrepareUploadTask(const TreeUploadRequest& request, For what);
    ~PrepareUploadTask() override;

    //! After success.
    const RemoteItem& target() const { return m_target; }
    const QList<LocalTree>& trees() const { return m_trees; }
    //! Paths that were asked for and cannot go up: those that would take the name of another one (nothing is
    //! merged), and what is neither a file nor a directory.
    const QList<UploadFailure>& refused() const { return m_refused; }
    bool isRefused(const QString& source) const;

protected:
    orx::Error initialize() override;
    void doCancel() override;

private:
    void onResolved(const RemoteItem& target);
    void refuseWhatCannotGo();

    const TreeUploadRequest m_request;
    const For m_for;
    RemoteItem m_target;
    QList<LocalTree> m_trees;
    QList<UploadFailure> m_refused;
    std::stop_source m_stop;
};

} // namespace halvane::host
