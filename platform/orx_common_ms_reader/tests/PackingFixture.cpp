#include "PackingFixture.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QProcess>

#include <cstring>
#include <fcntl.h>
#include <random>
#include <sys/stat.h>

namespace orx::vonk {

void PackingFixture::SetUp() {
    ASSERT_TRUE(m_dir.isValid());
    ASSERT_TRUE(QDir().mkpath(in()));
    ASSERT_TRUE(QDir().mkpath(out()));
}

QString PackingFixture::in(const QString& name) const {
    return m_dir.filePath(QStringLiteral("in")) + (name.isEmpty() ? QString() : QLatin1Char('/') + name);
}

QString PackingFixture::out(const QString& name) const {
    return m_dir.filePath(QStringLiteral("out")) + (name.isEmpty() ? QString() : QLatin1Char('/') + name);
}

void PackingFixture::write(const QString& path, const QByteArray& content, qint64 seconds, int nanoseconds) {
    ASSERT_TRUE(QDir().mkpath(QFileInfo(path).path()));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
    ASSERT_EQ(file.write(content), content.size());
    file.close();
    setTime(path, seconds, nanoseconds);
}

void PackingFixture::setTime(const QString& path, qint64 seconds, int nanoseconds) {
    const timespec times[] = {{seconds, nanoseconds}, {seconds, nanoseconds}};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(path).constData(), times, 0), 0);
}

QByteArray PackingFixture::read(const QString& path) {
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    return file.readAll();
}

QByteArray PackingFixture::noise(qsizetype size, quint32 seed) {
    std::mt19937 random(seed);
    QByteArray bytes((size + 3) / 4 * 4, Qt::Uninitialized);
    for (qsizetype at = 0; at < bytes.size(); at += 4) {
        const quint32 number = quint32(random());
        std::memcpy(bytes.data() + at, &number, sizeof number);
    }
    return bytes.left(size);
}

QByteArray PackingFixture::text(qsizetype size, quint32 seed) {
    return noise((size + 1) / 2, seed).toHex().left(size);
}

QString PackingFixture::makeAcquisition() const {
    const QString top = in(QStringLiteral("run1.d"));
    write(top + QStringLiteral("/fid"), text(2'500'000), 1'700'000'001, 250'000'000);
    write(top + QStringLiteral("/noise.bin"), noise(1'200'000));
    write(top + QStringLiteral("/empty"), {});
    write(top + QStringLiteral("/Überschrift µ.txt"), "m/z");
    write(top + QStringLiteral("/AcqData/") + QString(120, QLatin1Char('n')) + QStringLiteral(".txt"),
          "long");
    EXPECT_TRUE(QDir().mkpath(top + QStringLiteral("/nothing here")));
    for (const char* const directory : {"/nothing here", "/AcqData", ""})
        setTime(top + QString::fromLatin1(directory), 1'600'000'000, 5);
    return top;
}

PackInput PackingFixture::inputOf(const QString& path) {
    PackInput input;
    input.path = path;
    input.sourceKind = QStringLiteral("test");
    return input;
}

void PackingFixture::pack(const QString& source, const QString& target) {
    const auto metadata = VonkPacker::pack(inputOf(source), target);
    ASSERT_FALSE(metadata.hasError()) << metadata.errorMessage().toStdString();
}

std::map<std::string, std::string> PackingFixture::tree(const QString& directory, Times times) {
    std::map<std::string, std::string> found;
    QDirIterator items(directory, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                       QDirIterator::Subdirectories);
    while (items.hasNext()) {
        const QString path = items.next();
        struct stat info = {};
        EXPECT_EQ(::lstat(QFile::encodeName(path).constData(), &info), 0);
        QString what = QStringLiteral("special");
        if (S_ISDIR(info.st_mode))
            what = QStringLiteral("directory");
        else if (S_ISREG(info.st_mode))
            what =
                QString::fromLatin1(QCryptographicHash::hash(read(path), QCryptographicHash::Sha256).toHex());
        if (times == Times::All || !S_ISDIR(info.st_mode))
            what += QStringLiteral(" %1.%2").arg(info.st_mtim.tv_sec).arg(info.st_mtim.tv_nsec);
        found.emplace(path.mid(directory.size() + 1).toStdString(), what.toStdString());
    }
    return found;
}

QStringList PackingFixture::names(const QString& directory) {
    return QDir(directory).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                                     QDir::Name);
}

QString PackingFixture::outputOf(const QString& program, const QStringList& arguments) {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    auto environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
    environment.insert(QStringLiteral("TZ"), QStringLiteral("UTC"));
    process.setProcessEnvironment(environment);
    process.start(program, arguments);
    EXPECT_TRUE(process.waitForFinished(-1));
    const QString output = QString::fromUtf8(process.readAll());
    EXPECT_EQ(process.exitCode(), 0) << program.toStdString() << ": " << output.toStdString();
    return output;
}

Error checked(const QString& path, Vonk::Check check) {
    Vonk vonk(path);
    Error error = vonk.open();
    return error.hasError() ? error : vonk.validate(check);
}

} // namespace orx::vonk
