#pragma once

#include "UploadFixture.h"

#include <HalvaneResourceReference.h>
#include <ResourceManager.h>

#include <gtest/gtest.h>

#include <QMap>
#include <QPointer>
#include <QTemporaryDir>

namespace orx::testing {

class FakeHandler;

//! Handlers of the Halvane scheme while the object lives, over a directory that stands for the cache's place
//! of one file.
class FakeResources {
public:
    using Content = QMap<QString, QByteArray>;
    enum class Valid { No, Yes };

    explicit FakeResources(const QString& directory);
    ~FakeResources();

    //! Puts files, by their paths, where the handlers expect the resource.
    void cache(const Content& content, Valid valid = Valid::Yes);
    //! An empty directory there; valid.
    void makeDirectory(const QString& path);

    //! What a retrieval puts there.
    Content fetched;
    Error handlerError;
    Error pathError;
    Error retrieveError; //!< of making the retrieval
    Error fetchError;    //!< of the retrieval itself
    bool holdFetch = false;
    //! Lets the retrieval go on that is held; false when there is none any more.
    bool releaseFetch();
    //! Every file has a place of its own, named after its id; paths of cache() then begin with that.
    bool apart = false;

    int fetches = 0; //!< retrievals made
    int started = 0; //!< retrievals run
    QSharedPointer<ResourceHandler> lastHandler;
    bool isValid = false;
    QPointer<Task> held;
    const QString directory;
};

//! A target directory beside faked resources.
class FakeResourcesTest : public ::testing::Test {
protected:
    FakeResourcesTest();

    static HalvaneFileResourceReferenceSPtr fileReference(int id, int version, const QString& name);
    static Error run(BaseTask& task);
    //! Runs the event loop until \a done; false when it never comes.
    static bool waitUntil(const std::function<bool()>& done);
    static bool tracedIn(const Error& error, const QString& function);

    QString targetDir() const;
    QString targetPath(const QString& name) const;
    void putTarget(const QString& name, const QByteArray& content) const;
    //! "name=content" and "directory/", sorted by name, hidden ones included.
    QStringList targetTree() const;

private:
    QTemporaryDir m_dir;

protected:
    FakeResources resources;
};

} // namespace orx::testing
