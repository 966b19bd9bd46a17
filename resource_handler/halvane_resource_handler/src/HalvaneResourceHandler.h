#pragma once

#include "orx_halvane_resource_handler_export.h"

#include <HalvaneResourceReference.h>
#include <RemoteResourceHandler.h>

#include <QCoreApplication>

namespace orx {

//! Base of the handlers of Halvane files and folders, and the scheme's way into the resource manager.
class ORX_HALVANE_RESOURCE_HANDLER_EXPORT HalvaneResourceHandler : public RemoteResourceHandler {
    Q_DECLARE_TR_FUNCTIONS(orx::HalvaneResourceHandler)
public:
    ~HalvaneResourceHandler() override;

    //! Lets the resource manager make handlers of Halvane references. For hosts, once at start-up and before
    //! the first handler is asked for. Thread: any.
    static void registerType();
    //! For hosts, at shut-down.
    static void unregisterType();
    //! A file or folder handler, as the reference's item type says. \a cache is not owned, may be null and
    //! outlives the handler. Fails with ErrorCode::InvalidArgument for other references and other item types.
    //! The reference's name, id and version are not looked at.
    static Result<QSharedPointer<ResourceHandler>> create(const QSharedPointer<ResourceReference>& reference,
                                                          ResourceCache* cache);
    //! Blocking: compares the name that \a reference carries with that on the server; letter case counts.
    //! ErrorCode::General when they differ; fails as the lookup of the handler and its retrieval of metadata
    //! do.
    static Error verifyResourceName(const QSharedPointer<HalvaneResourceReference>& reference);

protected:
    HalvaneResourceHandler(const QSharedPointer<ResourceReference>& reference, ResourceCache* cache);

    //! The directory of the server, so that two servers never share entries: its authority, made a valid file
    //! name; "[invalid]" while there is no valid URL.
    QString subCachePath() const override;
};

} // namespace orx
