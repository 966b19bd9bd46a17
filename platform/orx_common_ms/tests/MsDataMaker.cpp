#include "MsDataMaker.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <sqlite3.h>
#include <zlib.h>

namespace orx::test {

QString MsDataMaker::file(const QString& name, const QByteArray& content) const {
    const QString target = path(name);
    QDir().mkpath(QFileInfo(target).path());
    QFile written(target);
    if (!written.open(QIODevice::WriteOnly) || written.write(content) != content.size())
        ADD_FAILURE() << "could not write " << qPrintable(target);
    return target;
}

QString MsDataMaker::directory(const QString& name) const {
    if (!QDir().mkpath(path(name)))
        ADD_FAILURE() << "could not make " << qPrintable(name);
    return path(name);
}

void MsDataMaker::execute(const QString& database, const QByteArray& sql) {
    sqlite3* connection = nullptr;
    char* message = nullptr;
    if (sqlite3_open(QFile::encodeName(database).constData(), &connection) != SQLITE_OK ||
        sqlite3_exec(connection, sql.constData(), nullptr, nullptr, &message) != SQLITE_OK)
        ADD_FAILURE() << (message ? message : sqlite3_errmsg(connection));
    sqlite3_free(message);
    sqlite3_close(connection);
}

QString MsDataMaker::catalogue(const QString& name, const QByteArray& closedProperly) const {
    const QString made = directory(name);
    file(name + QStringLiteral("/analysis.tdf_bin"), "frames");
    QByteArray sql =
        "CREATE TABLE Frames (Id INTEGER PRIMARY KEY, Time REAL, MsMsType INTEGER, "
        "MaxIntensity INTEGER, SummedIntensities INTEGER);"
        "INSERT INTO Frames VALUES (1, 1.0, 0, 10, 100), (2, 2.0, 9, 20, 200), (3, 4.0, 0, 30, 300);"
        "CREATE TABLE GlobalMetadata (Key TEXT PRIMARY KEY, Value TEXT);"
        "INSERT INTO GlobalMetadata VALUES ('InstrumentName', 'A frame maker'), "
        "('AcquisitionDateTime', '2024-02-29T12:00:00+01:00'), "
        "('MzAcqRangeLower', '100.5'), ('MzAcqRangeUpper', '1700.25');";
    if (!closedProperly.isEmpty())
        sql += "INSERT INTO GlobalMetadata VALUES ('ClosedProperly', '" + closedProperly + "');";
    execute(made + QStringLiteral("/analysis.tdf"), sql);
    return made;
}

QByteArray MsDataMaker::gzipped(const QByteArray& content) {
    QByteArray packed(qsizetype(compressBound(uLong(content.size()))) + 64, Qt::Uninitialized);
    z_stream state{};
    deflateInit2(&state, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15 + 16, 8, Z_DEFAULT_STRATEGY);
    QByteArray source = content;
    state.next_in = reinterpret_cast<Bytef*>(source.data());
    state.avail_in = uInt(source.size());
    state.next_out = reinterpret_cast<Bytef*>(packed.data());
    state.avail_out = uInt(packed.size());
    EXPECT_EQ(deflate(&state, Z_FINISH), Z_STREAM_END);
    packed.truncate(qsizetype(state.total_out));
    deflateEnd(&state);
    return packed;
}

QByteArray MsDataMaker::utf16(const QByteArray& content, bool lowByteFirst) {
    QByteArray wide = lowByteFirst ? QByteArray("\xff\xfe") : QByteArray("\xfe\xff");
    for (const char c : content) {
        if (!lowByteFirst)
            wide.append('\0');
        wide.append(c);
        if (lowByteFirst)
            wide.append('\0');
    }
    return wide;
}

QByteArray MsDataMaker::mzMl() {
    return "<?xml version=\"1.0\"?>\n<mzML version=\"1.1.0\"><fileDescription/><run id=\"r\"><spectrumList "
           "count=\"1\">"
           "<spectrum index=\"0\" id=\"scan=1\" defaultArrayLength=\"0\">"
           "<cvParam accession=\"MS:1000511\" name=\"ms level\" value=\"1\"/></spectrum>"
           "</spectrumList></run></mzML>\n";
}

QByteArray MsDataMaker::imzMl(const QByteArray& uuid) {
    QByteArray identifier;
    if (!uuid.isEmpty())
        identifier = "<cvParam accession=\"IMS:1000080\" name=\"universally unique identifier\" value=\"" +
                     uuid + "\"/>";
    return "<?xml version=\"1.0\"?>\n<mzML version=\"1.1.0\"><fileDescription><fileContent>" + identifier +
           "<cvParam accession=\"IMS:1000031\" name=\"processed\"/></fileContent></fileDescription>"
           "<run id=\"r\"><spectrumList count=\"0\"/></run></mzML>\n";
}

QByteArray MsDataMaker::mzXml() {
    return "<?xml version=\"1.0\"?>\n<mzXML><msRun scanCount=\"1\">"
           "<scan num=\"1\" msLevel=\"1\" peaksCount=\"0\"/></msRun></mzXML>\n";
}

QByteArray MsDataMaker::compoundDocument() {
    return QByteArray("\xd0\xcf\x11\xe0\xa1\xb1\x1a\xe1") + QByteArray(504, '\0');
}

} // namespace orx::test
