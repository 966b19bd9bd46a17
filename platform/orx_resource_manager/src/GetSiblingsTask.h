#pragma once

#include "orx_resource_manager_export.h"

#include <ResourceReference.h>
#include <Task.h>

#include <QList>

namespace orx {

//! Lists the resources that lie beside a given one, on a worker: waiting for it needs no running event loop.
//! A subclass calls stopBody() first thing in its destructor.
class ORX_RESOURCE_MANAGER_EXPORT GetSiblingsTask : public Task {
    Q_OBJECT
public:
    explicit GetSiblingsTask(QObject* parent = nullptr);
    ~GetSiblingsTask() override;
    //! After success; empty before.
    QList<ResourceReferenceSPtr> siblings() const;

protected:
    //! Called once per run, on a worker; may block.
    virtual Result<QList<QSharedPointer<ResourceReference>>> loadSiblings() const = 0;
    Error doExec() final;
    //! Takes the list over on the owner's thread.
    Error doFinish() override;

private:
    struct Private;
    std::unique_ptr<Private> d;
};

} // namespace orx
