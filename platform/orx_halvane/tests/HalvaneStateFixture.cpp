#include "HalvaneStateFixture.h"

#include "HalvaneConnection.h"

#include <QFile>

namespace orx::testing {

namespace {
constexpr int kPatienceMs = 60'000;
}

void HalvaneStateFixture::SetUp() {
    ASSERT_TRUE(m_dir.isValid());
    qputenv("HALVANE_CONFIG_DIR", QFile::encodeName(configDir()));
    useServer(QStringLiteral("https://lab.example.org"));
    HalvaneConnection::instance().setCredentials(QStringLiteral("anna"), "token");
}

void HalvaneStateFixture::TearDown() {
    qunsetenv("HALVANE_CONFIG_DIR");
    HalvaneConnection::instance().setSettings(HalvaneSettings());
    HalvaneConnection::instance().setCredentials(QString(), QByteArray());
}

void HalvaneStateFixture::useServer(const QString& url) {
    HalvaneConnection::instance().setSettings(
        HalvaneSettings(HalvaneMachineSettings(QUrl(url)), HalvaneUserSettings()));
}

QString HalvaneStateFixture::makeFile(const QString& name, const QByteArray& content) const {
    QFile file(m_dir.filePath(name));
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << qPrintable(file.errorString());
    EXPECT_EQ(file.write(content), content.size());
    return file.fileName();
}

HalvaneUploadRecord HalvaneStateFixture::recordFor(const QString& path, int folderId) {
    const auto parameters =
        HalvaneFileUploadParameters::create(path, folderId, HalvaneResourceReference::ItemType::Folder,
                                            QString(), std::nullopt, {}, std::nullopt);
    EXPECT_TRUE(parameters) << qPrintable(parameters.errorMessage());
    const auto record = HalvaneUploadJournal::describe(*parameters);
    EXPECT_TRUE(record) << qPrintable(record.errorMessage());
    return *record;
}

StateProcess::StateProcess(const QStringList& arguments) {
    m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    m_process.start(QStringLiteral(HALVANE_STATE_PROCESS), arguments);
    EXPECT_TRUE(m_process.waitForStarted(kPatienceMs)) << qPrintable(m_process.errorString());
}

StateProcess::~StateProcess() {
    kill();
}

QString StateProcess::readLine() {
    while (!m_process.canReadLine())
        if (!m_process.waitForReadyRead(kPatienceMs))
            return QString();
    return QString::fromUtf8(m_process.readLine()).trimmed();
}

int StateProcess::finish() {
    m_process.closeWriteChannel();
    EXPECT_TRUE(m_process.waitForFinished(kPatienceMs));
    return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -1;
}

void StateProcess::kill() {
    if (m_process.state() == QProcess::NotRunning)
        return;
    m_process.kill();
    EXPECT_TRUE(m_process.waitForFinished(kPatienceMs));
}

} // namespace orx::testing
