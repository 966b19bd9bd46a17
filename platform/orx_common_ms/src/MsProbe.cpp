#include "MsProbe.h"

#include "ByteStream.h"
#include "DirectoryProbe.h"
#include "ProbeParts.h"
#include "Texts.h"
#include "XmlHead.h"

#include <QFile>
#include <QFileInfo>

namespace orx {

namespace {

constexpr qsizetype kHead = 4096;
constexpr qint64 kTail = 4096;

MsDataCheck notRecognised() {
    return {MsDataKind::None, msText("It is not raw data of a kind that is recognised."), {}};
}

//! The last '.' and what follows it taken off; unchanged without one.
QString stemOf(const QString& path) {
    const qsizetype dot = path.lastIndexOf(u'.');
    return dot > path.lastIndexOf(u'/') + 1 ? path.left(dot) : path;
}

//! Bytes that UTF-16 puts between those of ASCII text are of no interest here.
QByteArray withoutZeros(QByteArray bytes) {
    return bytes.replace('\0', QByteArray());
}

bool isXml(QByteArrayView head) {
    // UTF-8 and UTF-16 with their marks, and both without.
    for (const QByteArrayView mark : {QByteArrayView("\xef\xbb\xbf"), QByteArrayView("\xff\xfe"),
                                      QByteArrayView("\xfe\xff"), QByteArrayView("", 1)}) {
        if (head.startsWith(mark)) {
            head = head.sliced(mark.size());
            break;
        }
    }
    for (const char c : head) {
        if (c == '<')
            return true;
        if (c != ' ' && c != '\t' && c != '\r' && c != '\n' && c != '\0')
            return false;
    }
    return false;
}

//! Whether an end tag of \a name, with or without a prefix, stands in \a text.
bool hasEndTag(const QByteArray& text, const QByteArray& name) {
    for (qsizetype at = text.indexOf("</"); at >= 0; at = text.indexOf("</", at + 2)) {
        const qsizetype end = text.indexOf('>', at);
        if (end < 0)
            return false;
        const QByteArray tag = text.mid(at + 2, end - at - 2).trimmed();
        if (tag.mid(tag.indexOf(':') + 1) == name)
            return true;
    }
    return false;
}

//! One regular file.
class FileProbe {
public:
    explicit FileProbe(const QString& path) : m_name(path) {}

    MsProbe run();

private:
    void look(const QByteArray& head);
    void lookAtGzip();
    void lookAtXml(ByteStream& stream, bool isUnpacked);
    void requireEnd(const QByteArray& rootName);
    void requireBinaryCompanion(const QByteArray& uuid);
    void requireScanCompanion();
    //! The file beside this one of that name, recorded as companion; empty, with a reason set, if there is
    //! none.
    QString requireCompanion(const QString& path);
    void fail(const QString& reason) {
        if (m_probe.check.reason.isEmpty())
            m_probe.check.reason = reason;
    }
    void recognise(MsDataKind kind) { m_probe.check = {kind, {}, {}}; }

    const QString m_name;
    std::unique_ptr<ReadOnlyFile> m_file;
    MsProbe m_probe;
};

MsProbe FileProbe::run() {
    m_probe.check = notRecognised();
    auto file = ReadOnlyFile::open(m_name);
    if (file.hasError()) {
        m_probe.check.reason = file.errorMessage();
        return m_probe;
    }
    m_file = *std::move(file);
    const auto head = m_file->bytesAt(0, kHead);
    if (head.hasError())
        m_probe.check.reason = head.errorMessage();
    else
        look(*head);
    return m_probe;
}

void FileProbe::look(const QByteArray& head) {
    if (isTaggedBinary(head)) {
        recognise(MsDataKind::TaggedBinaryFile);
    } else if (isCompoundDocument(head)) {
        m_probe.dependsOnPath = true;
        if (m_name.endsWith(QLatin1String(".wiff"), Qt::CaseInsensitive))
            requireScanCompanion();
    } else if (GunzipStream::isGzip(head)) {
        lookAtGzip();
    } else if (isXml(head)) {
        lookAtXml(*m_file, false);
    } else if (isMgf(*m_file)) {
        recognise(MsDataKind::Mgf);
    }
}

void FileProbe::lookAtGzip() {
    auto packed = ReadOnlyFile::open(m_name);
    if (packed.hasError())
        return;
    GunzipStream unpacked(*std::move(packed));
    const auto head = readHead(unpacked, kHead);
    if (head.hasError())
        return;
    // The stream goes forward only, so that it is opened again for those who read from the beginning.
    auto again = openUnpacked(m_name);
    if (again.hasError())
        return;
    if (isXml(*head))
        lookAtXml(**again, true);
    else if (isMgf(**again))
        recognise(MsDataKind::Mgf);
}

void FileProbe::lookAtXml(ByteStream& stream, bool isUnpacked) {
    const XmlHead head = readXmlHead(stream);
    if (head.kind == MsDataKind::None)
        return;
    if (head.kind == MsDataKind::ImzMl && isUnpacked) {
        m_probe.check = {
            head.kind, msText("Imaging data in gzip form is not supported; unpack it first."), {}};
        return;
    }
    recognise(head.kind);
    if (!head.damage.isEmpty())
        return fail(head.damage);
    if (head.kind == MsDataKind::ImzMl)
        requireBinaryCompanion(head.uuid);
    if (!isUnpacked)
        requireEnd(head.rootName);
}

void FileProbe::requireEnd(const QByteArray& rootName) {
    const auto tail = m_file->bytesAt(qMax<qint64>(0, m_file->size() - kTail), kTail);
    if (tail.hasError())
        fail(tail.errorMessage());
    else if (!hasEndTag(withoutZeros(*tail), rootName))
        fail(
            msText("It is not complete: its end tag \"</%1>\" is missing.").arg(QString::fromUtf8(rootName)));
}

QString FileProbe::requireCompanion(const QString& path) {
    m_probe.dependsOnPath = true;
    const CompanionSearch search = findFile(path, m_probe.witnesses);
    if (search.path.isEmpty()) {
        fail(msText("Its companion \"%1\" is missing.").arg(QFileInfo(path).fileName()));
        return QString();
    }
    m_probe.check.companions.append(search.path);
    if (search.size == 0)
        fail(msText("Its companion \"%1\" is empty.").arg(QFileInfo(search.path).fileName()));
    return search.path;
}

void FileProbe::requireBinaryCompanion(const QByteArray& uuid) {
    const QString companion = requireCompanion(stemOf(m_name) + QStringLiteral(".ibd"));
    if (companion.isEmpty() || uuid.isEmpty())
        return;
    const auto file = ReadOnlyFile::open(companion);
    const auto start = file.hasError() ? Result<QByteArray>(file.error()) : file.value()->bytesAt(0, 16);
    if (start.hasError())
        return fail(msText("Its companion \"%1\" cannot be read.").arg(QFileInfo(companion).fileName()));
    if (!isUuid(*start, uuid))
        fail(msText("Its companion \"%1\" belongs to another acquisition: their identifiers differ.")
                 .arg(QFileInfo(companion).fileName()));
}

void FileProbe::requireScanCompanion() {
    recognise(MsDataKind::WiffFile);
    requireCompanion(m_name + QStringLiteral(".scan"));
}

} // namespace

MsProbe probeMsData(const QByteArray& path, const FileStamp& stamp) {
    if (stamp.isFile())
        return FileProbe(QFile::decodeName(path)).run();
    if (stamp.isDirectory())
        return probeMsDirectory(path);
    MsProbe probe;
    probe.check.reason = msText("It is neither a regular file nor a directory.");
    return probe;
}

} // namespace orx
