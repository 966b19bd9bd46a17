#include "UploadFixture.h"

#include <HalvaneHistory.h>

#include <QCoreApplication>
#include <QDir>
#include <QMutex>
#include <QMutexLocker>

#include <sqlite3.h>

namespace orx::testing {
namespace {

QMutex errorLogMutex;
QStringList errorLogLines;
QtMessageHandler previousHandler = nullptr;

void keepErrors(QtMsgType type, const QMessageLogContext& context, const QString& message) {
    if (qstrcmp(context.category, "orx.error") == 0) {
        const QMutexLocker lock(&errorLogMutex);
        errorLogLines.append(message);
    } else if (previousHandler != nullptr) {
        previousHandler(type, context, message);
    }
}

class ProbedRemoteHandler : public RemoteResourceHandler {
public:
    ProbedRemoteHandler(const ResourceReferenceSPtr& reference, ResourceCache* cache, CacheProbe* probe)
        : RemoteResourceHandler(reference, cache), m_probe(probe) {}

protected:
    using RemoteResourceHandler::retrieveTask;
    std::unique_ptr<Task> existsTask() const override { return nullptr; }
    std::unique_ptr<Task> retrieveMetadataTask() const override { return nullptr; }
    std::unique_ptr<Task> retrieveTask(const DirPath&) override { return nullptr; }
    QString subCachePath() const override {
        ++m_probe->placesAsked;
        return m_probe->subPath;
    }

private:
    CacheProbe* m_probe;
};

//! Of a resource that is not kept in a cache.
class OtherHandler : public ResourceHandler {
public:
    explicit OtherHandler(const ResourceReferenceSPtr& reference) : ResourceHandler(reference, nullptr) {}
    Result<ResourceCleanupPolicy> cleanupPolicy() const override { return ResourceCleanupPolicy::Keep; }
    Error setCleanupPolicy(ResourceCleanupPolicy) override { return Error(); }
    bool isAvailableLocally() const override { return true; }

protected:
    std::unique_ptr<Task> existsTask() const override { return nullptr; }
    std::unique_ptr<Task> retrieveMetadataTask() const override { return nullptr; }
    std::optional<std::unique_ptr<Task>> retrieveTask() override { return std::nullopt; }
    Result<Path> localPath() const override { return Path(reference()->name()); }
};

} // namespace

HalvaneFileUploadParameters
uploadOf(const QString& path, int targetId, ItemType targetType, HalvaneUploadPolicyOptions options,
         const std::optional<QList<HalvaneCompactExtendedMetaDataValue>>& metadata) {
    auto parameters = HalvaneFileUploadParameters::create(path, targetId, targetType, QString(), metadata,
                                                          options, std::nullopt);
    EXPECT_FALSE(parameters.hasError()) << qPrintable(parameters.errorMessage());
    return parameters.hasError() ? HalvaneFileUploadParameters() : *parameters;
}

EventLog::EventLog(BaseTask* task) {
    QObject::connect(task, &BaseTask::started, &m_context,
                     [this] { m_lines.append(QStringLiteral("started")); });
    QObject::connect(task, &BaseTask::progressInitiated, &m_context, [this](int maximum) {
        m_lines.append(QStringLiteral("progressInitiated %1").arg(maximum));
    });
    QObject::connect(task, &BaseTask::progress, &m_context, [this](int value, int maximum) {
        m_lines.append(QStringLiteral("progress %1/%2").arg(value).arg(maximum));
    });
    QObject::connect(task, &BaseTask::canceled, &m_context,
                     [this] { m_lines.append(QStringLiteral("canceled")); });
    QObject::connect(task, &BaseTask::finished, &m_context,
                     [this] { m_lines.append(QStringLiteral("finished")); });
}

void EventLog::follow(ScriptedHalvaneServer& server) {
    server.onRequest = [this](const ScriptedRequest& request) { m_lines.append(request.line()); };
}

ErrorLog::ErrorLog() {
    errorLogLines.clear();
    QLoggingCategory::setFilterRules(QStringLiteral("orx.error.info=true"));
    previousHandler = qInstallMessageHandler(keepErrors);
}

ErrorLog::~ErrorLog() {
    qInstallMessageHandler(previousHandler);
    QLoggingCategory::setFilterRules(QString());
}

QStringList ErrorLog::lines() {
    const QMutexLocker lock(&errorLogMutex);
    return errorLogLines;
}

ContextTranslator::ContextTranslator() {
    QCoreApplication::installTranslator(this);
}

ContextTranslator::~ContextTranslator() {
    QCoreApplication::removeTranslator(this);
}

QString ContextTranslator::translate(const char* context, const char* text, const char*, int) const {
    return QString::fromUtf8(context) + u'|' + QString::fromUtf8(text);
}

CacheProbe::CacheProbe(Makes makes) {
    using HandlerResult = Result<QSharedPointer<ResourceHandler>>;
    ResourceHandlerFactory::registerResourceHandlerScheme(
        HalvaneResourceReference::schemeType,
        [this, makes](const ResourceReferenceSPtr& reference, ResourceCache*) -> HandlerResult {
            ++lookups;
            lookedUp = reference.dynamicCast<HalvaneResourceReference>()->toText();
            if (makes == Makes::Errors)
                return Error(ErrorCode::General, QStringLiteral("no handler today"));
            if (makes == Makes::OtherHandlers)
                return QSharedPointer<ResourceHandler>(new OtherHandler(reference));
            return QSharedPointer<ResourceHandler>(new ProbedRemoteHandler(reference, &m_cache, this));
        });
}

CacheProbe::~CacheProbe() {
    // No worker is to write into the directory, or of what it did, when that goes.
    m_cache.dropPending();
    m_cache.waitForPending();
    ResourceHandlerFactory::unregisterResourceHandlerScheme(HalvaneResourceReference::schemeType);
}

std::optional<QString> CacheProbe::path() {
    m_cache.waitForPending();
    if (!m_cache.contains(subPath))
        return std::nullopt;
    return m_cache.expectedPath(subPath)->toString();
}

std::optional<QByteArray> CacheProbe::content() {
    const auto place = path();
    if (!place)
        return std::nullopt;
    QFile file(*place);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    return file.readAll();
}

QStringList descriptorsOf(const QString& path) {
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    QStringList found;
    const QFileInfoList all = QDir(QStringLiteral("/proc/self/fd")).entryInfoList(QDir::Files | QDir::System);
    for (const QFileInfo& descriptor : all) {
        if (descriptor.symLinkTarget() == path)
            found.append(descriptor.fileName());
    }
    return found;
}

UploadTest::UploadTest() {
    server.connectClient();
}

QString UploadTest::filePath(const QString& name) const {
    return QDir(client.workDir()).filePath(name);
}

QString UploadTest::makeFile(const QString& name, const QByteArray& content) const {
    QFile file(filePath(name));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    EXPECT_EQ(file.write(content), content.size());
    return file.fileName();
}

Error UploadTest::run(BaseTask& task) {
    task.exec();
    return task.waitForFinished();
}

void UploadTest::recordVersion(const QString& path, int fileId, int version) {
    const Error error = HalvaneHistory().setFileVersion(path, fileId, version);
    EXPECT_FALSE(error.hasError()) << qPrintable(error.traceText());
}

void UploadTest::breakHistory() const {
    // The lookup makes the database; the journal of uploads, which lies in it too, stays whole.
    EXPECT_FALSE(HalvaneHistory().fileVersion(filePath(QStringLiteral("any")), 1).hasError());
    sqlite3* database = nullptr;
    const QByteArray path = QFile::encodeName(client.configDir() + QStringLiteral("/halvane.sqlite"));
    ASSERT_EQ(sqlite3_open_v2(path.constData(), &database, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK);
    EXPECT_EQ(sqlite3_exec(database, "ALTER TABLE history RENAME TO elsewhere", nullptr, nullptr, nullptr),
              SQLITE_OK);
    EXPECT_EQ(sqlite3_close(database), SQLITE_OK);
}

} // namespace orx::testing
