#pragma once

#include "orx_halvane_resource_handler_export.h"

#include <GetSiblingsTask.h>
#include <HalvaneResourceReference.h>

namespace orx {

//! Lists the files of a file's folder, the file itself included, each at its latest version and in the
//! server's order. Failures of the server are logged and give an empty list, so that listing never fails
//! because of the network. Derived classes call stopBody() first thing in their destructors.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT GetHalvaneFileSiblingsTask : public GetSiblingsTask {
    Q_OBJECT
public:
    //! \a reference is not null.
    GetHalvaneFileSiblingsTask(const QSharedPointer<HalvaneFileResourceReference>& reference,
                               QObject* parent);
    ~GetHalvaneFileSiblingsTask() override;

protected:
    //! Two blocking calls of the server, one after the other.
    Result<QList<QSharedPointer<ResourceReference>>> loadSiblings() const override;

private:
    const QSharedPointer<HalvaneFileResourceReference> m_reference;
};

} // namespace orx
