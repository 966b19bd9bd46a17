#pragma once

#include <RealServer.h>
#include <ScriptedHalvaneServer.h>
#include <tasks/HalvaneFileUploadTask.h>

#include <ResourceCache.h>
#include <ResourceManager.h>

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>
#include <QTranslator>

namespace orx::testing {

using ItemType = HalvaneResourceReference::ItemType;

//! No option at all: the recorded version is compared with the server's.
constexpr HalvaneUploadPolicyOptions CheckVersion{};
constexpr HalvaneUploadPolicyOptions Replace{HalvaneUploadPolicyOption::ReplaceWithoutVersionCheck};
constexpr HalvaneUploadPolicyOptions ByName{HalvaneUploadPolicyOption::NewVersionByName};

//! Parameters as a host makes them.
HalvaneFileUploadParameters
uploadOf(const QString& path, int targetId = ScriptedHalvaneService::RootFolder,
         ItemType targetType = ItemType::Folder, HalvaneUploadPolicyOptions options = Replace,
         const std::optional<QList<HalvaneCompactExtendedMetaDataValue>>& metadata = std::nullopt);

//! The signals of a task and, when asked, the requests of a server, as lines in the order in which they came:
//! "started", "progressInitiated 102", "progress 1/102", "canceled", "finished", "POST /uploads".
class EventLog {
public:
    explicit EventLog(BaseTask* task);
    void follow(ScriptedHalvaneServer& server);
    const QStringList& lines() const { return m_lines; }
    QStringList linesWith(const QString& part) const { return m_lines.filter(part); }
    int count(const QString& line) const { return int(m_lines.count(line)); }

private:
    QObject m_context;
    QStringList m_lines;
};

//! What orx::Error::ecatch logs while the object lives.
class ErrorLog {
public:
    ErrorLog();
    ~ErrorLog();
    static QStringList lines();
    static bool mentions(const QString& text) { return !lines().filter(text).isEmpty(); }
};

//! Shows the context of each translated text: "context|text".
class ContextTranslator : public QTranslator {
public:
    ContextTranslator();
    ~ContextTranslator() override;
    bool isEmpty() const override { return false; }
    QString translate(const char* context, const char* text, const char*, int) const override;
};

//! The handlers of the Halvane scheme while the object lives, and the cache into which uploads put files by
//! them.
class CacheProbe {
public:
    enum class Makes { RemoteHandlers, OtherHandlers, Errors };
    explicit CacheProbe(Makes makes = Makes::RemoteHandlers);
    ~CacheProbe();

    //! The content of the entry, after waiting for it; none when there is no entry.
    std::optional<QByteArray> content();
    bool isEmpty() { return !path().has_value(); }
    //! Where the entry lies, after waiting for it.
    std::optional<QString> path();
    ResourceCache& cache() { return m_cache; }

    int lookups = 0;
    QString lookedUp; //!< text of the last reference
    //! Where the handlers put what is added; one that leaves the cache is refused.
    QString subPath = QStringLiteral("server/file/run.mzML");
    //! How often a handler asked for it, as it does when something is added.
    int placesAsked = 0;

private:
    QTemporaryDir m_dir;
    ResourceCache m_cache{m_dir.path()};
};

//! The descriptors under which this process has \a path open. What a subtask had open goes with its object,
//! which is deleted when control returns to the event loop: that is done first.
QStringList descriptorsOf(const QString& path);
inline bool isOpenHere(const QString& path) {
    return !descriptorsOf(path).isEmpty();
}

//! A client connected to a scripted server, with a directory for files.
class UploadTest : public ::testing::Test {
protected:
    UploadTest();

    QString filePath(const QString& name) const;
    QString makeFile(const QString& name, const QByteArray& content = "twelve bytes") const;
    //! Runs \a task to its end and returns its error.
    static Error run(BaseTask& task);
    //! What this machine last had; failing is a test failure.
    static void recordVersion(const QString& path, int fileId, int version);
    //! Makes looking up recorded versions fail, and nothing else.
    void breakHistory() const;

    ClientEnvironment client{QUrl(QStringLiteral("http://scripted.invalid"))};
    ScriptedHalvaneServer server;
};

} // namespace orx::testing
