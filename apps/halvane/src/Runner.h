#pragma once

#include "CommandLine.h"

#include <DownloadJob.h>
#include <KnownContents.h>
#include <LocalTree.h>
#include <ResolveItemTask.h>
#include <Resources.h>
#include <Session.h>
#include <UploadPolicy.h>

#include <QVersionNumber>

namespace orx {
class HalvaneResourceMetadata;
}

namespace halvane::host {
class TreeUploadJob;
}

namespace halvane::cli {

class Interruption;
class Output;
struct Inspection;

//! Carries out one command; each operator returns the exit code. Thread: the main one.
class Runner {
public:
    Runner(const CommandLine& commandLine, const Output& output, Interruption& interruption)
        : m_global(commandLine.global), m_output(output), m_interruption(interruption) {}

    int operator()(const LoginCommand& command);
    int operator()(const LogoutCommand& command);
    int operator()(const WhoAmICommand& command);
    int operator()(const MkdirCommand& command);
    int operator()(const LsCommand& command);
    int operator()(const PutCommand& command);
    int operator()(const GetCommand& command);
    int operator()(const InfoCommand& command);
    int operator()(const SiblingsCommand& command);
    int operator()(const ExistsCommand& command);
    int operator()(const VerifyNameCommand& command);
    int operator()(const CacheCommand& command);
    int operator()(const PackCommand& command);
    int operator()(const UnpackCommand& command);
    int operator()(const InspectCommand& command);
    int operator()(const CheckCommand& command);
    int operator()(const UpgradeCommand& command);

private:
    //! Runs it to its end, or until a signal comes; prints its warnings.
    orx::Error run(orx::BaseTask& task);
    //! The same without the warnings, which are printed as they come.
    orx::Error runQuietly(orx::BaseTask& task);
    //! A job that blocks, on a worker.
    orx::Error runOnWorker(const QString& name, std::function<orx::Error()> job);
    //! The framework with its cache, and the session.
    orx::Result<std::unique_ptr<host::Resources>> startResources();
    //! An interrupted transfer can go on later; says so. \a summary is what was moved, empty for nothing.
    int transferFailed(const orx::Error& error, const QString& summary);
    int putFile(const host::UploadRequest& request);
    int putTree(const PutCommand& command);
    int printPlan(const host::TreeUploadRequest& request, const host::UploadPolicy::Options& options);
    //! What is there now of what was uploaded.
    QList<host::LocalTree> treesNow(const host::TreeUploadJob& job);
    //! How an upload of more than one file ended.
    int endUpload(const host::TreeUploadJob& job, const orx::Error& error, const QString& summary);
    //! What a later run needs not read again.
    void keepKnown(const host::TreeUploadJob& job, const host::KnownContents::ByPath& before) const;
    void printRemarks(const QList<host::LocalTree>& trees) const;
    void printTrees(const host::UploadReport& report, const QString& summary) const;
    void printLeftOut(const host::UploadReport& report) const;
    //! How a download of several files ended.
    int endDownload(const host::DownloadJob& job, const orx::Error& error);
    //! An upload whose version was made can not; says that too.
    int stoppedAfterUpload(const orx::Error& error, const host::UploadFileJob& job);
    void warnOfPlainHttp(const QUrl& url) const;
    void waitForCache(orx::ResourceCache& cache);

    using Wanted = host::ResolveItemTask::Wanted;
    //! An item that a person named, and its handler.
    struct Named {
        //! The first to come and the last to go.
        std::unique_ptr<host::Resources> resources;
        host::RemoteItem item;
        QSharedPointer<orx::ResourceHandler> handler;
    };
    orx::Result<host::RemoteItem> resolve(const QString& reference, Wanted wanted = Wanted::Any);
    //! Starts the resources, too.
    orx::Result<Named> open(const QString& reference, Wanted wanted = Wanted::Any);
    QList<QStringList> infoRows(const host::RemoteItem& item,
                                const orx::HalvaneResourceMetadata& metadata) const;
    void printSiblings(const QList<orx::ResourceReferenceSPtr>& siblings) const;
    orx::Result<bool> exists(const QString& reference);
    orx::Result<bool> existsById(const orx::HalvaneReferenceText& reference, const QString& text);
    //! What has a copy in the cache, after a session was made.
    int withCopy(const CacheCommand& command);
    //! Whether the unpacked copy of a packed acquisition was made of what the server has.
    orx::Result<bool> isOfServer(const host::RemoteItem& item, const orx::ResourceHandler& copy);
    int withEntry(const CacheCommand& command, orx::ResourceCache& cache);
    int listCache(orx::ResourceCache& cache);
    int verifyCache(orx::ResourceCache& cache);
    int pruneCache(orx::ResourceCache& cache, const orx::ResourceCache::Limits& limits);
    //! Runs it with its percents shown beside \a doing.
    orx::Error runWithPercents(orx::BaseTask& task, const QString& doing, const QString& path);
    //! How work on the file \a path ended that makes nothing half.
    int localWorkFailed(const orx::Error& error, const QString& path);
    int upgradeInPlace(const UpgradeCommand& command);
    int upgradeInto(const UpgradeCommand& command);
    int printUpgraded(const QString& path, const QVersionNumber& before, bool isUpgraded);
    //! What is known of the packed acquisition or raw data at \a path.
    orx::Result<Inspection> inspected(const QString& path);
    //! What a packed acquisition on the server says of itself.
    orx::Result<Inspection> inspectedOnServer(const QString& reference);

    GlobalOptions m_global;
    const Output& m_output;
    Interruption& m_interruption;
};

} // namespace halvane::cli
