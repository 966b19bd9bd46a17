#include "FakeResources.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>

namespace orx::testing {
namespace {

void write(const QString& path, const QByteArray& content) {
    ASSERT_TRUE(QDir().mkpath(QFileInfo(path).path()));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    ASSERT_EQ(file.write(content), content.size());
}

QStringList treeOf(const QDir& directory, const QString& prefix) {
    QStringList lines;
    const auto entries = directory.entryInfoList(
        QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo& entry : entries) {
        if (entry.isDir()) {
            lines << prefix + entry.fileName() + u'/'
                  << treeOf(QDir(entry.filePath()), prefix + entry.fileName() + u'/');
            continue;
        }
        QFile file(entry.filePath());
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        lines << prefix + entry.fileName() + u'=' + QString::fromUtf8(file.readAll());
    }
    return lines;
}

//! Reports 3 and 7 of 7 and puts the content into its place, or ends with the error that is wanted.
class FakeRetrieval final : public Task {
public:
    explicit FakeRetrieval(FakeResources* resources)
        : Task(QStringLiteral("FakeRetrieval")), m_resources(resources) {}

protected:
    void start() override {
        ++m_resources->started;
        Q_EMIT progressInitiated(7);
        if (m_resources->holdFetch)
            m_resources->held = this;
        else
            goOn();
    }
    void doCancel() override { finish(error()); }

public:
    void goOn() { QMetaObject::invokeMethod(this, &FakeRetrieval::work, Qt::QueuedConnection); }

private:
    void work() {
        Q_EMIT progress(3, 7);
        if (!m_resources->fetchError.hasError())
            m_resources->cache(m_resources->fetched);
        Q_EMIT progress(7, 7);
        finish(m_resources->fetchError);
    }

    FakeResources* m_resources;
};

} // namespace

class FakeHandler final : public ResourceHandler {
public:
    FakeHandler(const ResourceReferenceSPtr& reference, ResourceCache* cache, FakeResources* resources)
        : ResourceHandler(reference, cache), m_resources(resources) {
        overrideRetrieveMode(RetrieveMode::Refresh); // not what is wanted of it
    }
    Result<ResourceCleanupPolicy> cleanupPolicy() const override { return ResourceCleanupPolicy::Automatic; }
    Error setCleanupPolicy(ResourceCleanupPolicy) override { return Error(); }
    bool isAvailableLocally() const override { return m_resources->isValid; }

protected:
    std::unique_ptr<Task> existsTask() const override { return nullptr; }
    std::unique_ptr<Task> retrieveMetadataTask() const override { return nullptr; }
    std::optional<std::unique_ptr<Task>> retrieveTask() override {
        if (m_resources->isValid)
            return std::nullopt;
        ++m_resources->fetches;
        return std::make_unique<FakeRetrieval>(m_resources);
    }
    // Asked once by the constructor of the task and once when it retrieves.
    Result<Path> localPath() const override {
        const bool retrieving = m_asked++ > 0;
        if (m_resources->pathError.hasError())
            return Error(m_resources->pathError);
        if (retrieving && m_resources->retrieveError.hasError())
            return Error(m_resources->retrieveError);
        const QString place =
            m_resources->apart
                ? QString::number(reference().dynamicCast<HalvaneResourceReference>()->id()) + u'/'
                : QString();
        return Path(QDir(m_resources->directory).filePath(place + reference()->name()));
    }

private:
    FakeResources* m_resources;
    mutable int m_asked = 0;
};

FakeResources::FakeResources(const QString& path) : directory(path) {
    EXPECT_TRUE(QDir().mkpath(directory));
    ResourceHandlerFactory::registerResourceHandlerScheme(
        HalvaneResourceReference::schemeType,
        [this](const ResourceReferenceSPtr& reference,
               ResourceCache* cache) -> Result<QSharedPointer<ResourceHandler>> {
            if (handlerError.hasError())
                return Error(handlerError);
            lastHandler = QSharedPointer<ResourceHandler>(new FakeHandler(reference, cache, this));
            return lastHandler;
        });
}

FakeResources::~FakeResources() {
    ResourceHandlerFactory::unregisterResourceHandlerScheme(HalvaneResourceReference::schemeType);
}

bool FakeResources::releaseFetch() {
    auto* const retrieval = static_cast<FakeRetrieval*>(held.data());
    if (retrieval)
        retrieval->goOn();
    return retrieval;
}

void FakeResources::cache(const Content& content, Valid valid) {
    for (auto file = content.begin(); file != content.end(); ++file)
        write(QDir(directory).filePath(file.key()), file.value());
    isValid = valid == Valid::Yes;
}

void FakeResources::makeDirectory(const QString& path) {
    EXPECT_TRUE(QDir(directory).mkpath(path));
    isValid = true;
}

FakeResourcesTest::FakeResourcesTest() : resources(m_dir.filePath(QStringLiteral("cache/12/3"))) {
    EXPECT_TRUE(QDir(m_dir.path()).mkpath(QStringLiteral("target")));
}

HalvaneFileResourceReferenceSPtr FakeResourcesTest::fileReference(int id, int version, const QString& name) {
    auto reference = HalvaneFileResourceReference::create(id, version, name);
    EXPECT_FALSE(reference.hasError());
    return reference.hasError() ? HalvaneFileResourceReferenceSPtr() : *reference;
}

Error FakeResourcesTest::run(BaseTask& task) {
    task.exec();
    return task.waitForFinished();
}

bool FakeResourcesTest::waitUntil(const std::function<bool()>& done) {
    constexpr int watchdogMs = 30'000;
    QElapsedTimer waiting;
    waiting.start();
    while (!done() && waiting.elapsed() < watchdogMs)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    return done();
}

bool FakeResourcesTest::tracedIn(const Error& error, const QString& function) {
    const auto trace = error.trace();
    return std::any_of(trace.begin(), trace.end(),
                       [&](const Error::TraceEntry& entry) { return entry.function.contains(function); });
}

QString FakeResourcesTest::targetDir() const {
    return m_dir.filePath(QStringLiteral("target"));
}

QString FakeResourcesTest::targetPath(const QString& name) const {
    return QDir(targetDir()).filePath(name);
}

void FakeResourcesTest::putTarget(const QString& name, const QByteArray& content) const {
    write(targetPath(name), content);
}

QStringList FakeResourcesTest::targetTree() const {
    return treeOf(QDir(targetDir()), QString());
}

} // namespace orx::testing
