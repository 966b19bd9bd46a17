#include "ItemDownloads.h"

#include <ContentHash.h>
#include <VonkPacker.h>

namespace orx::testing {

using halvane::host::RemoteItem;

namespace {

void write(const QString& path, const QByteArray& content) {
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
}

//! What is at \a path, packed.
QByteArray packed(const QString& path) {
    vonk::PackInput input;
    input.path = path;
    const auto metadata = vonk::VonkPacker::pack(input, path + QStringLiteral(".vonk"));
    EXPECT_TRUE(metadata) << qPrintable(metadata.errorMessage());
    QFile file(path + QStringLiteral(".vonk"));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    return file.readAll();
}

} // namespace

ItemDownloads::Wanted ItemDownloads::wanted(const QString& name, const QByteArray& content,
                                            bool useCache) const {
    Wanted file;
    file.item.type = RemoteItem::ItemType::File;
    file.item.id = makeFile(name, content);
    file.item.version = 1;
    file.item.name = name;
    file.item.size = content.size();
    file.item.sha256 = QString::fromLatin1(sha256(content));
    file.directory = at(QString());
    file.name = name;
    file.useCache = useCache;
    return file;
}

QByteArray ItemDownloads::packedRun(qsizetype held) {
    const QTemporaryDir dir;
    EXPECT_TRUE(QDir(dir.path()).mkpath(text("run.d")));
    QByteArray bytes;
    for (quint64 i = 0; bytes.size() < held; ++i)
        bytes += QByteArray::fromHex(sha256(QByteArray::number(i)));
    write(dir.filePath(text("run.d/fid")), bytes.left(held));
    return packed(dir.filePath(text("run.d")));
}

QByteArray ItemDownloads::packedFile(const QString& name, const QByteArray& content) {
    const QTemporaryDir dir;
    write(dir.filePath(name), content);
    return packed(dir.filePath(name));
}

QByteArray ItemDownloads::sha256(const QByteArray& content) {
    ContentHash hash;
    hash.add(content.constData(), content.size());
    return hash.hexDigest();
}

} // namespace orx::testing
