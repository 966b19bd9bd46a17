#include "MsDataMaker.h"

#include <MsDataFileUtils.h>

#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <functional>

#include <sys/stat.h>
#include <unistd.h>

using namespace orx;
using orx::test::MsDataMaker;

namespace {

const QByteArray kUuid = "{12345678-90AB-4CDE-AF12-34567890ABCD}";
const QByteArray kUuidBytes = QByteArray::fromHex("1234567890ab4cdeaf1234567890abcd");

QString realFile(const char* name) {
    return QStringLiteral(ORX_TEST_DATA_DIR "/") + QString::fromLatin1(name);
}

struct Row {
    const char* name;
    //! Makes the acquisition and returns its path.
    std::function<QString(const MsDataMaker&)> make;
    MsDataKind kind;
    const char* reason; //!< what the reason contains; null: valid
};

QString textFile(const MsDataMaker& maker, const char* name, const QByteArray& content) {
    return maker.file(QString::fromLatin1(name), content);
}

//! A directory "run.d" with these files, each with a byte in it unless its name ends in '-'.
std::function<QString(const MsDataMaker&)> directoryWith(const QList<QByteArray>& files) {
    return [files](const MsDataMaker& maker) {
        const QString made = maker.directory(QStringLiteral("run.d"));
        for (const QByteArray& each : files) {
            const bool isEmpty = each.endsWith('-');
            const QString name = QString::fromLatin1(isEmpty ? each.chopped(1) : each);
            maker.file(QStringLiteral("run.d/") + name, isEmpty ? "" : "x");
        }
        return made;
    };
}

std::function<QString(const MsDataMaker&)> fileWith(const char* name, const QByteArray& content) {
    return [name, content](const MsDataMaker& maker) { return textFile(maker, name, content); };
}

void expectRows(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const MsDataMaker maker;
        const QString path = row.make(maker);
        const MsDataCheck check = MsDataFileUtils::checkMsData(path);
        EXPECT_EQ(msDataKindId(check.kind).toStdString(), msDataKindId(row.kind).toStdString());
        EXPECT_EQ(check.isValid(), row.reason == nullptr) << qPrintable(check.reason);
        EXPECT_EQ(MsDataFileUtils::isValidMsData(path), row.reason == nullptr);
        EXPECT_TRUE(check.reason.contains(QString::fromUtf8(row.reason))) << qPrintable(check.reason);
    }
}

//! Makes this process somebody whose permissions count, while it lives.
class AsNobody {
public:
    AsNobody() : m_user(geteuid()) { EXPECT_TRUE(m_user != 0 || seteuid(65534) == 0); }
    ~AsNobody() { EXPECT_TRUE(m_user != 0 || seteuid(0) == 0); }

private:
    uid_t m_user;
};

} // namespace

TEST(MsDataCheck, recognisesXmlByItsRootWhateverItsName) {
    const QByteArray mzMl = MsDataMaker::mzMl();
    const QByteArray mzXml = MsDataMaker::mzXml();
    QByteArray latin = mzMl;
    latin.replace("version=\"1.0\"?", "version=\"1.0\" encoding=\"ISO-8859-1\"?");
    QByteArray windows = mzMl;
    windows.replace("version=\"1.0\"?", "version=\"1.0\" encoding=\"windows-1252\"?");
    QByteArray prefixed = mzMl;
    prefixed.replace("<", "<ms:").replace("<ms:/", "</ms:").replace("<ms:?", "<?");
    QByteArray indexed = mzMl;
    indexed.replace("<mzML", "<indexedmzML><mzML").replace("</mzML>", "</mzML></indexedmzML>");
    QByteArray bare = mzMl;
    bare.remove(0, bare.indexOf('\n') + 1);
    const QByteArray oldMzXml = "<msRun scanCount=\"0\"><scan num=\"1\"/></msRun>";
    expectRows({
        {"plain", fileWith("run.mzML", mzMl), MsDataKind::MzMl, nullptr},
        {"another extension", fileWith("run.xml", mzMl), MsDataKind::MzMl, nullptr},
        {"no extension", fileWith("run", mzMl), MsDataKind::MzMl, nullptr},
        {"without declaration", fileWith("run.mzML", bare), MsDataKind::MzMl, nullptr},
        {"indexed", fileWith("run.mzML", indexed), MsDataKind::MzMl, nullptr},
        {"with a namespace prefix", fileWith("run.mzML", prefixed), MsDataKind::MzMl, nullptr},
        {"ISO-8859-1", fileWith("run.mzML", latin), MsDataKind::MzMl, nullptr},
        {"windows-1252", fileWith("run.mzML", windows), MsDataKind::MzMl, nullptr},
        {"byte-order mark", fileWith("run.mzML", "\xef\xbb\xbf" + mzMl), MsDataKind::MzMl, nullptr},
        {"blank lines first", fileWith("run.mzML", "\n \n" + bare), MsDataKind::MzMl, nullptr},
        {"UTF-16, low byte first", fileWith("run.mzML", MsDataMaker::utf16(mzMl, true)), MsDataKind::MzMl,
         nullptr},
        {"UTF-16, high byte first", fileWith("run.mzML", MsDataMaker::utf16(mzMl, false)), MsDataKind::MzMl,
         nullptr},
        {"UTF-16 without a mark, low byte first", fileWith("run.mzML", MsDataMaker::utf16(bare, true).mid(2)),
         MsDataKind::MzMl, nullptr},
        {"UTF-16 without a mark, high byte first",
         fileWith("run.mzML", MsDataMaker::utf16(bare, false).mid(2)), MsDataKind::MzMl, nullptr},
        {"gzipped", fileWith("run.mzML.gz", MsDataMaker::gzipped(mzMl)), MsDataKind::MzMl, nullptr},
        {"mzXML", fileWith("run.mzXML", mzXml), MsDataKind::MzXml, nullptr},
        {"mzXML in upper case", fileWith("RUN.MZXML", mzXml), MsDataKind::MzXml, nullptr},
        {"mzXML gzipped", fileWith("run.mzXML.gz", MsDataMaker::gzipped(mzXml)), MsDataKind::MzXml, nullptr},
        {"mzXML of the first version", fileWith("run.xml", oldMzXml), MsDataKind::MzXml, nullptr},
    });
}

TEST(MsDataCheck, refusesXmlOfAnythingElseWhateverItsExtension) {
    const QByteArray mzMl = MsDataMaker::mzMl();
    const char* const unknown = "not raw data of a kind that is recognised";
    expectRows({
        {"empty file", fileWith("run.mzML", ""), MsDataKind::None, unknown},
        {"text", fileWith("run.mzML", "This is not a run."), MsDataKind::None, unknown},
        {"random bytes", fileWith("run.mzML", QByteArray::fromHex("00deadbeef00")), MsDataKind::None,
         unknown},
        {"another root", fileWith("run.mzML", "<html><body>mzML</body></html>"), MsDataKind::None, unknown},
        {"a run without its count", fileWith("run.mzXML", "<msRun/>"), MsDataKind::None, unknown},
        {"the name in a comment", fileWith("run.mzML", "<!-- <mzML> --><a/>"), MsDataKind::None, unknown},
        {"another root, gzipped", fileWith("run.mzML.gz", MsDataMaker::gzipped("<html/>")), MsDataKind::None,
         unknown},
        {"gzip of nothing", fileWith("run.mzML.gz", QByteArray::fromHex("1f8b")), MsDataKind::None, unknown},
        {"cut in the middle", fileWith("run.mzML", mzMl.left(mzMl.size() - 20)), MsDataKind::MzMl,
         "its end tag \"</mzML>\" is missing"},
        {"cut in its head", fileWith("run.mzML", mzMl.left(60)), MsDataKind::MzMl, "damaged in line"},
        {"cut, UTF-16", fileWith("run.mzML", MsDataMaker::utf16(mzMl.left(mzMl.size() - 20), true)),
         MsDataKind::MzMl, "its end tag \"</mzML>\" is missing"},
        {"cut mzXML", fileWith("run.mzXML", MsDataMaker::mzXml().chopped(10)), MsDataKind::MzXml,
         "its end tag \"</mzXML>\" is missing"},
        {"entities",
         fileWith("run.mzML", "<!DOCTYPE mzML [<!ENTITY a \"b\">]>" + mzMl.mid(mzMl.indexOf("<mzML"))),
         MsDataKind::None, unknown},
    });
}

TEST(MsDataCheck, wantsTheBinaryCompanionOfImagingData) {
    const auto imaging = [](const char* companion, const QByteArray& content,
                            const char* document = "run.imzML") {
        return [=](const MsDataMaker& maker) {
            if (companion)
                textFile(maker, companion, content);
            return textFile(maker, document, MsDataMaker::imzMl(kUuid));
        };
    };
    QByteArray mixed = kUuidBytes;
    std::reverse(mixed.begin(), mixed.begin() + 4);
    std::reverse(mixed.begin() + 4, mixed.begin() + 6);
    std::reverse(mixed.begin() + 6, mixed.begin() + 8);
    expectRows({
        {"both", imaging("run.ibd", kUuidBytes + "data"), MsDataKind::ImzMl, nullptr},
        {"other case", imaging("RUN.IBD", kUuidBytes), MsDataKind::ImzMl, nullptr},
        {"known by content", imaging("run.ibd", kUuidBytes, "run.xml"), MsDataKind::ImzMl, nullptr},
        {"reversed groups", imaging("run.ibd", mixed), MsDataKind::ImzMl, nullptr},
        {"missing", imaging(nullptr, ""), MsDataKind::ImzMl, "companion \"run.ibd\" is missing"},
        {"of another name", imaging("other.ibd", kUuidBytes), MsDataKind::ImzMl,
         "companion \"run.ibd\" is missing"},
        {"empty", imaging("run.ibd", ""), MsDataKind::ImzMl, "companion \"run.ibd\" is empty"},
        {"too short", imaging("run.ibd", kUuidBytes.left(7)), MsDataKind::ImzMl, "identifiers differ"},
        {"of another run", imaging("run.ibd", QByteArray(16, 'x')), MsDataKind::ImzMl, "identifiers differ"},
        {"a directory",
         [](const MsDataMaker& maker) {
             maker.directory(QStringLiteral("run.ibd"));
             return textFile(maker, "run.imzML", MsDataMaker::imzMl(kUuid));
         },
         MsDataKind::ImzMl, "companion \"run.ibd\" is missing"},
        {"without identifier",
         [](const MsDataMaker& maker) {
             textFile(maker, "run.ibd", "anything");
             return textFile(maker, "run.imzML", MsDataMaker::imzMl({}));
         },
         MsDataKind::ImzMl, nullptr},
        {"gzipped", fileWith("run.imzML.gz", MsDataMaker::gzipped(MsDataMaker::imzMl(kUuid))),
         MsDataKind::ImzMl, "gzip form is not supported"},
        {"the companion alone", fileWith("run.ibd", kUuidBytes), MsDataKind::None, "not raw data"},
    });
}

TEST(MsDataCheck, namesTheCompanionsByAbsolutePath) {
    const MsDataMaker maker;
    const QString companion = textFile(maker, "Run.IBD", kUuidBytes);
    const QString document = textFile(maker, "run.imzML", MsDataMaker::imzMl(kUuid));
    EXPECT_EQ(MsDataFileUtils::checkMsData(document).companions, QStringList{companion});
}

TEST(MsDataCheck, knowsTheOwnerOfACompanion) {
    const MsDataMaker maker;
    const auto owner = [](const QString& path) { return MsDataFileUtils::ownerOfCompanion(path); };
    const QString binary = textFile(maker, "Run.IBD", kUuidBytes);
    EXPECT_EQ(owner(binary), QString()) << "nothing is beside it";
    const QString document = textFile(maker, "run.imzML", MsDataMaker::imzMl(kUuid));
    EXPECT_EQ(owner(binary), document);
    EXPECT_EQ(owner(document), QString());
    const QString scans = textFile(maker, "a.WIFF.scan", "x");
    EXPECT_EQ(owner(scans), QString());
    const QString wiff = textFile(maker, "a.wiff", MsDataMaker::compoundDocument());
    EXPECT_EQ(owner(scans), wiff);
    EXPECT_EQ(owner(textFile(maker, "a.scan", "x")), QString());
    EXPECT_EQ(owner(QString()), QString());
    textFile(maker, "Run.IBD", "of another run, longer");
    EXPECT_EQ(owner(binary), QString()) << "the document is not valid with it";
}

TEST(MsDataCheck, recognisesPeakListsByTheirFirstLines) {
    const QByteArray ions = "BEGIN IONS\nPEPMASS=1\n1 2\nEND IONS\n";
    QByteArray manyParameters;
    for (int i = 0; i < 500; ++i)
        manyParameters += "USER" + QByteArray::number(i) + "=somebody somewhere\n";
    expectRows({
        {"plain", fileWith("a.mgf", ions), MsDataKind::Mgf, nullptr},
        {"another extension", fileWith("a.txt", ions), MsDataKind::Mgf, nullptr},
        {"byte-order mark", fileWith("a.mgf", "\xef\xbb\xbf" + ions), MsDataKind::Mgf, nullptr},
        {"carriage returns", fileWith("a.mgf", "BEGIN IONS\r\nEND IONS\r\n"), MsDataKind::Mgf, nullptr},
        {"comments and parameters", fileWith("a.mgf", "# x\n; y\n! z\n/ w\n\nCOM=a b c\nMASS=Mono\n" + ions),
         MsDataKind::Mgf, nullptr},
        {"many parameters", fileWith("a.mgf", manyParameters + ions), MsDataKind::Mgf, nullptr},
        {"gzipped", fileWith("a.mgf.gz", MsDataMaker::gzipped(ions)), MsDataKind::Mgf, nullptr},
        {"no end of line", fileWith("a.mgf", "BEGIN IONS"), MsDataKind::Mgf, nullptr},
        {"another line first", fileWith("a.mgf", "hello\n" + ions), MsDataKind::None, "not raw data"},
        {"parameters only", fileWith("a.mgf", manyParameters), MsDataKind::None, "not raw data"},
        {"zeros", fileWith("a.mgf", QByteArray("#\0\n", 3) + ions), MsDataKind::None, "not raw data"},
        {"no parameter name", fileWith("a.mgf", "=x\n" + ions), MsDataKind::None, "not raw data"},
    });
}

TEST(MsDataCheck, recognisesSingleBinaryFilesByTheirLeadingBytes) {
    const QByteArray tagged = QByteArray::fromHex("01a1") + MsDataMaker::utf16("Acquired", true).mid(2);
    const auto pair = [](const char* name, const char* companion, const QByteArray& content) {
        return [=](const MsDataMaker& maker) {
            textFile(maker, companion, content);
            return textFile(maker, name, MsDataMaker::compoundDocument());
        };
    };
    expectRows({
        {"tagged", fileWith("a.raw", tagged), MsDataKind::TaggedBinaryFile, nullptr},
        {"tagged, another extension", fileWith("a.bin", tagged), MsDataKind::TaggedBinaryFile, nullptr},
        {"tag without text", fileWith("a.raw", QByteArray::fromHex("01a1000102030405060708")),
         MsDataKind::None, "not raw data"},
        {"tag alone", fileWith("a.raw", QByteArray::fromHex("01a1")), MsDataKind::None, "not raw data"},
        {"other bytes", fileWith("a.raw", "raw"), MsDataKind::None, "not raw data"},
        {"wiff", pair("a.wiff", "a.wiff.scan", "x"), MsDataKind::WiffFile, nullptr},
        {"wiff in other case", pair("A.WIFF", "a.wiff.Scan", "x"), MsDataKind::WiffFile, nullptr},
        {"wiff without scans", fileWith("a.wiff", MsDataMaker::compoundDocument()), MsDataKind::WiffFile,
         "companion \"a.wiff.scan\" is missing"},
        {"wiff with empty scans", pair("a.wiff", "a.wiff.scan", ""), MsDataKind::WiffFile,
         "companion \"a.wiff.scan\" is empty"},
        {"another document", pair("a.doc", "a.doc.scan", "x"), MsDataKind::None, "not raw data"},
        {"wiff by name only", fileWith("a.wiff", "text"), MsDataKind::None, "not raw data"},
    });
}

TEST(MsDataCheck, recognisesDirectoriesByTheirInnerFiles) {
    expectRows({
        {"empty", directoryWith({}), MsDataKind::None, "not raw data"},
        {"other files", directoryWith({"readme.txt", "data.bin"}), MsDataKind::None, "not raw data"},
        {"scans and peaks", directoryWith({"AcqData/MSScan.bin", "AcqData/MSPeak.bin"}),
         MsDataKind::ScanPeakDirectory, nullptr},
        {"scans and profiles, other case", directoryWith({"acqdata/MSSCAN.BIN", "acqdata/msprofile.bin"}),
         MsDataKind::ScanPeakDirectory, nullptr},
        {"scans alone", directoryWith({"AcqData/MSScan.bin"}), MsDataKind::ScanPeakDirectory,
         "\"AcqData/MSPeak.bin\" and \"AcqData/MSProfile.bin\" are both missing"},
        {"peaks alone", directoryWith({"AcqData/MSPeak.bin"}), MsDataKind::None, "not raw data"},
        {"empty scans", directoryWith({"AcqData/MSScan.bin-", "AcqData/MSPeak.bin"}),
         MsDataKind::ScanPeakDirectory, "\"AcqData/MSScan.bin\" is missing or empty"},
        {"functions", directoryWith({"_FUNC001.DAT", "_HEADER.TXT"}), MsDataKind::FunctionDirectory, nullptr},
        {"functions, other case", directoryWith({"_func017.dat", "_header.txt"}),
         MsDataKind::FunctionDirectory, nullptr},
        {"functions without header", directoryWith({"_FUNC001.DAT"}), MsDataKind::FunctionDirectory,
         "\"_HEADER.TXT\" is missing or empty"},
        {"empty functions", directoryWith({"_FUNC001.DAT-", "_HEADER.TXT"}), MsDataKind::FunctionDirectory,
         "\"_FUNCnnn.DAT\" are empty"},
        {"no number", directoryWith({"_FUNC1.DAT", "_HEADER.TXT"}), MsDataKind::None, "not raw data"},
        {"fid and acqu", directoryWith({"fid", "acqu"}), MsDataKind::FidDirectory, nullptr},
        {"FID and ACQUS", directoryWith({"FID", "ACQUS"}), MsDataKind::FidDirectory, nullptr},
        {"fid alone", directoryWith({"fid"}), MsDataKind::FidDirectory, "\"acqus\" is missing or empty"},
        {"empty fid", directoryWith({"fid-", "acqus"}), MsDataKind::FidDirectory,
         "\"fid\" is missing or empty"},
        {"parameters alone", directoryWith({"acqus"}), MsDataKind::None, "not raw data"},
        {"trace", directoryWith({"MSD1.MS"}), MsDataKind::MsdDirectory, nullptr},
        {"trace, other case", directoryWith({"msd.ms"}), MsDataKind::MsdDirectory, nullptr},
        {"empty trace", directoryWith({"MSD1.MS-"}), MsDataKind::MsdDirectory, "\"MSD*.MS\" are empty"},
        {"a whole kind beside a half one", directoryWith({"fid", "_FUNC001.DAT", "_HEADER.TXT"}),
         MsDataKind::FunctionDirectory, nullptr},
        {"a half kind beside a whole one", directoryWith({"_FUNC001.DAT", "MSD1.MS"}),
         MsDataKind::MsdDirectory, nullptr},
        {"directories of these names", directoryWith({"fid/x", "acqus/x"}), MsDataKind::FidDirectory,
         "\"fid\" is missing or empty"},
    });
}

TEST(MsDataCheck, believesACatalogueThatItIsNotComplete) {
    const auto catalogue = [](const QByteArray& closed) {
        return [=](const MsDataMaker& maker) { return maker.catalogue(QStringLiteral("a.d"), closed); };
    };
    const auto with = [](const char* name, const QByteArray& content) {
        return [=](const MsDataMaker& maker) {
            const QString made = maker.catalogue(QStringLiteral("a.d"));
            maker.file(QStringLiteral("a.d/") + QString::fromLatin1(name), content);
            return made;
        };
    };
    expectRows({
        {"closed", catalogue("1"), MsDataKind::FrameCatalogue, nullptr},
        {"says nothing", catalogue({}), MsDataKind::FrameCatalogue, nullptr},
        {"not closed", catalogue("0"), MsDataKind::FrameCatalogue, "not closed"},
        {"changes in a log", with("analysis.tdf-wal", "x"), MsDataKind::FrameCatalogue, "analysis.tdf-wal"},
        {"changes in a journal", with("analysis.tdf-journal", "x"), MsDataKind::FrameCatalogue,
         "analysis.tdf-journal"},
        {"an empty log", with("analysis.tdf-wal", ""), MsDataKind::FrameCatalogue, nullptr},
        {"no frames", with("analysis.tdf_bin", ""), MsDataKind::FrameCatalogue,
         "\"analysis.tdf_bin\" is missing or empty"},
        {"no database", with("analysis.tdf", "text"), MsDataKind::FrameCatalogue, "not a database"},
        {"a damaged database", with("analysis.tdf", QByteArray("SQLite format 3\0", 16) + "damage"),
         MsDataKind::FrameCatalogue, "cannot be read"},
        {"another catalogue",
         [](const MsDataMaker& maker) {
             maker.file(QStringLiteral("a.d/analysis.tdf_bin"), "x");
             MsDataMaker::execute(maker.path(QStringLiteral("a.d/analysis.tdf")), "CREATE TABLE a (b)");
             return maker.path(QStringLiteral("a.d"));
         },
         MsDataKind::FrameCatalogue, "cannot be read"},
        {"other case",
         [](const MsDataMaker& maker) {
             const QString made = maker.catalogue(QStringLiteral("a.d"));
             QFile::rename(made + QStringLiteral("/analysis.tdf"), made + QStringLiteral("/Analysis.TDF"));
             QFile::rename(made + QStringLiteral("/analysis.tdf_bin"),
                           made + QStringLiteral("/ANALYSIS.tdf_bin"));
             return made;
         },
         MsDataKind::FrameCatalogue, nullptr},
        {"signs that mean something in addresses",
         [](const MsDataMaker& maker) { return maker.catalogue(QStringLiteral("a?mode=rw&b#%20 c.d")); },
         MsDataKind::FrameCatalogue, nullptr},
    });
}

TEST(MsDataCheck, isNotHeldUpByACatalogueThatTakesForEver) {
    const std::pair<const char*, const char*> rows[] = {
        {"CREATE VIEW GlobalMetadata AS WITH RECURSIVE n(Key) AS (SELECT 'a' UNION ALL SELECT Key FROM n) "
         "SELECT Key, 'x' AS Value FROM n;",
         "\"GlobalMetadata\" is no table"},
        {"CREATE TABLE GlobalMetadata (Key, Value);"
         "WITH RECURSIVE n(Key) AS (SELECT 1 UNION ALL SELECT Key + 1 FROM n WHERE Key < 100000) "
         "INSERT INTO GlobalMetadata SELECT Key, Key FROM n;",
         "interrupted"}};
    for (const auto& [sql, reason] : rows) {
        const MsDataMaker maker;
        maker.file(QStringLiteral("a.d/analysis.tdf_bin"), "x");
        MsDataMaker::execute(maker.path(QStringLiteral("a.d/analysis.tdf")), sql);
        const MsDataCheck check = MsDataFileUtils::checkMsData(maker.path(QStringLiteral("a.d")));
        EXPECT_FALSE(check.isValid());
        EXPECT_TRUE(check.reason.contains(QString::fromLatin1(reason))) << qPrintable(check.reason);
    }
}

TEST(MsDataCheck, leavesACatalogueAndItsDirectoryAsTheyWere) {
    const MsDataMaker maker;
    const QString made = maker.catalogue(QStringLiteral("a.d"));
    MsDataMaker::execute(made + QStringLiteral("/analysis.tdf"), "PRAGMA journal_mode = WAL");
    const QStringList names = QDir(made).entryList(QDir::Files, QDir::Name);
    struct stat before {};
    ASSERT_EQ(::stat(QFile::encodeName(made).constData(), &before), 0);
    EXPECT_TRUE(MsDataFileUtils::isValidMsData(made));
    struct stat after {};
    ASSERT_EQ(::stat(QFile::encodeName(made).constData(), &after), 0);
    EXPECT_EQ(QDir(made).entryList(QDir::Files, QDir::Name), names);
    EXPECT_EQ(before.st_mtim.tv_sec, after.st_mtim.tv_sec);
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
}

TEST(MsDataCheck, recognisesRealFiles) {
    const std::pair<const char*, MsDataKind> files[] = {
        {"tiny.mzML", MsDataKind::MzMl},
        {"wrong-count.mzML", MsDataKind::MzMl},
        {"two-scans.mzXML", MsDataKind::MzXml},
        {"small.mgf", MsDataKind::Mgf},
        {"sqlite-frames.d", MsDataKind::FrameCatalogue},
        {"sqlite-frames.d/", MsDataKind::FrameCatalogue},
    };
    for (const auto& [name, kind] : files) {
        const MsDataCheck check = MsDataFileUtils::checkMsData(realFile(name));
        EXPECT_TRUE(check.isValid()) << name << ": " << qPrintable(check.reason);
        EXPECT_EQ(int(check.kind), int(kind)) << name;
        EXPECT_TRUE(check.companions.isEmpty()) << name;
    }
    EXPECT_FALSE(MsDataFileUtils::isValidMsData(realFile("SOURCES.txt")));
    EXPECT_FALSE(MsDataFileUtils::isValidMsData(realFile("sqlite-frames.d/analysis.tdf")));
    EXPECT_FALSE(MsDataFileUtils::isValidMsData(realFile("")));
}

TEST(MsDataCheck, neitherBlocksNorFailsOnWhatIsNoRegularFile) {
    const MsDataMaker maker;
    const auto reasonOf = [](const QString& path) {
        const MsDataCheck check = MsDataFileUtils::checkMsData(path);
        EXPECT_FALSE(check.isValid());
        return check.reason;
    };
    const QString fifo = maker.path(QStringLiteral("pipe.mzML"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    EXPECT_TRUE(reasonOf(fifo).contains(QStringLiteral("neither a regular file nor a directory")));
    EXPECT_TRUE(reasonOf(QStringLiteral("/dev/zero")).contains(QStringLiteral("neither a regular file")));

    const QString loop = maker.path(QStringLiteral("loop.mzML"));
    ASSERT_EQ(::symlink(QFile::encodeName(loop).constData(), QFile::encodeName(loop).constData()), 0);
    EXPECT_TRUE(reasonOf(loop).contains(QStringLiteral("cannot be looked at")));
    EXPECT_TRUE(
        reasonOf(maker.path(QStringLiteral("missing"))).contains(QStringLiteral("cannot be looked at")));
    EXPECT_TRUE(reasonOf(QString()).contains(QStringLiteral("empty")));
    // A regular file that the kernel refuses to read.
    EXPECT_TRUE(reasonOf(QStringLiteral("/proc/self/mem")).contains(QStringLiteral("cannot be read")));
    const QString below = maker.file(QStringLiteral("plain.txt"), "x") + QStringLiteral("/below");
    EXPECT_TRUE(reasonOf(below).contains(QStringLiteral("cannot be looked at")));
}

TEST(MsDataCheck, isNotHeldUpByPipesAmongInnerFilesAndCompanions) {
    for (const char* inner : {"fid", "acqus", "analysis.tdf", "analysis.tdf_bin", "_HEADER.TXT", "MSD1.MS"}) {
        const MsDataMaker maker;
        const QString made = maker.directory(QStringLiteral("run.d"));
        const QString fifo = made + QLatin1Char('/') + QString::fromLatin1(inner);
        ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
        EXPECT_FALSE(MsDataFileUtils::isValidMsData(made)) << inner;
    }
    const MsDataMaker maker;
    const QString fifo = maker.path(QStringLiteral("run.ibd"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(fifo).constData(), 0600), 0);
    EXPECT_FALSE(MsDataFileUtils::isValidMsData(textFile(maker, "run.imzML", MsDataMaker::imzMl(kUuid))));
}

TEST(MsDataCheck, saysThatItMayNotRead) {
    const MsDataMaker maker;
    const QString file = textFile(maker, "run.mzML", MsDataMaker::mzMl());
    const QString directory = maker.directory(QStringLiteral("closed.d"));
    ASSERT_EQ(::chmod(QFile::encodeName(maker.path({})).constData(), 0755), 0);
    ASSERT_EQ(::chmod(QFile::encodeName(file).constData(), 0), 0);
    ASSERT_EQ(::chmod(QFile::encodeName(directory).constData(), 0), 0);
    {
        const AsNobody nobody;
        EXPECT_TRUE(MsDataFileUtils::checkMsData(file).reason.contains(QStringLiteral("cannot be read")));
        EXPECT_TRUE(
            MsDataFileUtils::checkMsData(directory).reason.contains(QStringLiteral("cannot be listed")));
    }
    ASSERT_EQ(::chmod(QFile::encodeName(directory).constData(), 0755), 0);
}

TEST(MsDataCheck, followsLinksToAnAcquisition) {
    const MsDataMaker maker;
    const QString link = maker.path(QStringLiteral("link"));
    ASSERT_TRUE(QFile::link(maker.catalogue(QStringLiteral("a.d")), link));
    EXPECT_TRUE(MsDataFileUtils::isValidMsData(link));
}

TEST(MsDataCheck, seesThatTheCompanionOfAnotherLinkIsMissing) {
    const MsDataMaker maker;
    maker.directory(QStringLiteral("elsewhere"));
    textFile(maker, "run.ibd", kUuidBytes);
    const QString document = textFile(maker, "run.imzML", MsDataMaker::imzMl(kUuid));
    const QString other = maker.path(QStringLiteral("elsewhere/run.imzML"));
    ASSERT_EQ(::link(QFile::encodeName(document).constData(), QFile::encodeName(other).constData()), 0);
    EXPECT_TRUE(MsDataFileUtils::isValidMsData(document));
    EXPECT_FALSE(MsDataFileUtils::isValidMsData(other));
}

TEST(MsDataCheck, takesRelativePaths) {
    const MsDataMaker maker;
    textFile(maker, "run.ibd", kUuidBytes);
    textFile(maker, "run.imzML", MsDataMaker::imzMl(kUuid));
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(maker.path({})));
    const MsDataCheck check = MsDataFileUtils::checkMsData(QStringLiteral("run.imzML"));
    QDir::setCurrent(before);
    EXPECT_TRUE(check.isValid()) << qPrintable(check.reason);
    ASSERT_EQ(check.companions.size(), 1);
    EXPECT_TRUE(QFileInfo(check.companions.front()).isAbsolute());
}
