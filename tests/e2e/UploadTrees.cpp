#include "UploadTrees.h"

#include <VonkPacker.h>

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>

namespace orx::testing {
namespace {

const QDateTime longAgo = QDateTime::fromSecsSinceEpoch(1'700'000'000);

void setTime(const QString& path) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadWrite)) << qPrintable(path);
    ASSERT_TRUE(file.setFileTime(longAgo, QFileDevice::FileModificationTime));
}

QString dataPath(const QString& name) {
    return QStringLiteral(ORX_TEST_DATA_DIR "/") + name;
}

void copyFile(const QString& source, const QString& target) {
    ASSERT_TRUE(QFile::copy(source, target)) << qPrintable(target);
    ASSERT_TRUE(QFile::setPermissions(target, QFile::ReadOwner | QFile::WriteOwner));
    setTime(target);
}

} // namespace

void UploadTrees::SetUp() {
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(client.login(server.url()));
    client.mustRun({"mkdir", "/raw"});
    // Tests do not wait for acquisitions that they have just made.
    QFile settings(client.configDir() + "/upload.ini");
    ASSERT_TRUE(settings.open(QIODevice::WriteOnly));
    settings.write("[acquisitions]\nquiet_time=0s\n");
    settings.close();
    server.clearRequests();
}

QString UploadTrees::makeDirectory(const QString& path) {
    EXPECT_TRUE(QDir().mkpath(client.path(path)));
    return client.path(path);
}

QString UploadTrees::write(const QString& path, const QByteArray& content) {
    makeDirectory(QFileInfo(path).path());
    const QString made = client.makeFile(path, content);
    setTime(made);
    return made;
}

QString UploadTrees::makeRawFile(const QString& path) {
    makeDirectory(QFileInfo(path).path());
    copyFile(dataPath("tiny.mzML"), client.path(path));
    return client.path(path);
}

QString UploadTrees::makeRawDirectory(const QString& path) {
    const QString made = makeDirectory(path);
    for (const QString name : {"analysis.tdf", "analysis.tdf_bin"})
        copyFile(dataPath("sqlite-frames.d/" + name), made + '/' + name);
    return made;
}

QString UploadTrees::makePacked(const QString& path) {
    makeDirectory(QFileInfo(path).path());
    const auto packed =
        vonk::VonkPacker::pack(vonk::PackInput::fromMs(dataPath("two-scans.mzXML")), client.path(path));
    EXPECT_TRUE(packed) << qPrintable(packed.error().errorMessage());
    setTime(client.path(path));
    return client.path(path);
}

void UploadTrees::makeWholeTree() {
    write("2026/a.txt", "content of a");
    makeRawFile("2026/sub/run.mzML");
    makeRawDirectory("2026/sub/frames.d");
    makePacked("2026/sub/deep/old.vonk");
    makeDirectory("2026/sub/empty");
    write("2026/sub/zero", "");
}

QList<QJsonObject> UploadTrees::ofType(const Outcome& outcome, const QString& type) {
    QList<QJsonObject> found = outcome.objects();
    found.removeIf([&](const QJsonObject& object) { return object["type"] != type; });
    return found;
}

QString UploadTrees::relative(const QString& path, const QString& directory) const {
    return QDir(client.path(directory)).relativeFilePath(path);
}

QMap<QString, QString> UploadTrees::outcomes(const Outcome& outcome, const QString& directory) const {
    QMap<QString, QString> found;
    for (const QJsonObject& file : ofType(outcome, "file"))
        found.insert(relative(file["path"].toString(), directory), file["outcome"].toString());
    return found;
}

QMap<QString, QString> UploadTrees::leftOut(const Outcome& outcome, const QString& directory) const {
    QMap<QString, QString> found;
    for (const QJsonObject& path : ofType(outcome, "left_out"))
        found.insert(relative(path["path"].toString(), directory), path["reason"].toString());
    return found;
}

QMap<QString, QString> UploadTrees::failures(const Outcome& outcome, const QString& directory) const {
    QMap<QString, QString> found;
    for (const QJsonObject& failure : ofType(outcome, "failure"))
        found.insert(relative(failure["path"].toString(), directory), failure["error"].toString());
    return found;
}

QStringList UploadTrees::onServer(const QString& folder) const {
    QStringList found;
    const QString prefix = folder == "/" ? folder : folder + '/';
    for (const QJsonObject& item : client.mustRun({"--json", "ls", folder}).objects()) {
        const QString path = prefix + item["name"].toString();
        if (item["type"] == "folder")
            found += QStringList{path + '/'} + onServer(path);
        else
            found += path + '@' + QString::number(item["version"].toInt());
    }
    found.sort();
    return found;
}

QByteArray UploadTrees::contentOnServer(const QString& reference) const {
    const QString target = client.path("fetched");
    client.mustRun({"get", "--no-cache", reference, "--to", target, "--if-exists", "overwrite"});
    return Client::contentOf(target);
}

QStringList UploadTrees::changes() const {
    QStringList found;
    for (const RealServer::Request& request : server.requests()) {
        if (request.method != "GET" && request.method != "HEAD")
            found.append(request.method + ' ' + request.path);
    }
    return found;
}

} // namespace orx::testing
