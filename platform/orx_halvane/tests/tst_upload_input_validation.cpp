#include <QuietWatch.h>
#include <Task.h>
#include <UploadFileInputValidation.h>

#include <FullPool.h>

#include <gtest/gtest.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using namespace orx;
using namespace std::chrono_literals;

namespace {

using Validation = UploadFileInputValidation;

class UploadInput : public ::testing::Test {
protected:
    ~UploadInput() override { Validation::setFilters(UploadFilters()); }

    QString make(const QString& name, const QByteArray& content = "content",
                 const QDateTime& modified = QDateTime::currentDateTime().addDays(-1)) const {
        QFile file(m_dir.filePath(name));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.flush();
        EXPECT_TRUE(file.setFileTime(modified, QFileDevice::FileModificationTime));
        return file.fileName();
    }
    QString makeDirectory(const QString& name) const {
        EXPECT_TRUE(QDir(m_dir.path()).mkpath(name));
        return m_dir.filePath(name);
    }
    static UploadRefusal refusal(const QString& path) { return Validation::refusal(QFileInfo(path)); }
    static bool isValid(const QString& path) { return Validation::validUploadPath(QFileInfo(path)); }
    static Validation::ValidationResult check(const QString& path);

    QTemporaryDir m_dir;
};

//! Runs the check as the body of a task does.
class CheckTask : public Task {
public:
    explicit CheckTask(const QString& path) : Task(path) { setExecutionMode(ExecutionMode::Coroutine); }
    Validation::ValidationResult result;

protected:
    QCoro::Task<Error> co_doExec() override {
        result = co_await Validation::co_validUploadPath(QFileInfo(name()));
        co_return Error();
    }
};

Validation::ValidationResult UploadInput::check(const QString& path) {
    CheckTask task(path);
    task.exec();
    EXPECT_FALSE(task.waitForFinished(60'000).hasError());
    return task.result;
}

//! Imaging data, which is whole with the companion beside it.
QByteArray imagingDocument() {
    return R"(<?xml version="1.0"?><mzML version="1.1"><fileDescription><fileContent>)"
           R"(<cvParam cvRef="IMS" accession="IMS:1000080" name="uuid" value="{12345678-1234-1234-1234-123456789abc}"/>)"
           R"(</fileContent></fileDescription><run id="r"><spectrumList count="0"/></run></mzML>)";
}

QByteArray imagingCompanion() {
    return QByteArray::fromHex("12345678123412341234123456789abc");
}

QByteArray spectra() {
    return "BEGIN IONS\nTITLE=1\nPEPMASS=500.5\nCHARGE=2+\n100.1 5\n200.2 7\nEND IONS\n";
}

} // namespace

TEST_F(UploadInput, ACompanionGoesUpWithTheRawDataBesideItAndAloneWithoutIt) {
    const QString binary = make(u"tissue.ibd"_qs, imagingCompanion());
    EXPECT_EQ(refusal(binary), UploadRefusal::None);
    const QString imaging = make(u"tissue.imzML"_qs, imagingDocument());
    EXPECT_EQ(refusal(binary), UploadRefusal::Companion);
    EXPECT_FALSE(check(binary).isValidPath);
    EXPECT_EQ(refusal(imaging), UploadRefusal::None);
    EXPECT_TRUE(check(imaging).isValidMsData);
    UploadFilters filters;
    filters.allowedExtensions = {u"ibd"_qs};
    Validation::setFilters(filters);
    EXPECT_EQ(refusal(binary), UploadRefusal::None) << "what it belongs to is not taken";
    EXPECT_TRUE(check(binary).isValidPath);
}

TEST_F(UploadInput, FilesAndDirectoriesAreValidByDefault) {
    EXPECT_TRUE(isValid(make(QStringLiteral("notes.txt"))));
    EXPECT_TRUE(isValid(make(QStringLiteral("without extension"))));
    EXPECT_TRUE(isValid(makeDirectory(QStringLiteral("empty"))));
}

TEST_F(UploadInput, AnEmptyListOfExtensionsAllowsAll) {
    EXPECT_TRUE(Validation::isAllowedExtension(QFileInfo(make(QStringLiteral("run.raw")))));
}

TEST_F(UploadInput, OnlyListedExtensionsAreAllowedWhateverTheirCase) {
    UploadFilters filters;
    filters.allowedExtensions = {QStringLiteral("mzML"), QStringLiteral(".mzML.gz")};
    Validation::setFilters(filters);
    EXPECT_TRUE(isValid(make(QStringLiteral("run.MZML"))));
    EXPECT_TRUE(isValid(make(QStringLiteral("run.mzml.gz"))));
    EXPECT_FALSE(Validation::isAllowedExtension(QFileInfo(make(QStringLiteral("run.gz")))));
    EXPECT_EQ(refusal(make(QStringLiteral("mzML"))), UploadRefusal::Extension);
}

TEST_F(UploadInput, DirectoriesAreAllowedWhateverTheirExtension) {
    UploadFilters filters;
    filters.allowedExtensions = {QStringLiteral("mzML")};
    filters.excludedNames = {QStringLiteral("*.d")};
    Validation::setFilters(filters);
    const QString directory = makeDirectory(QStringLiteral("run.d"));
    EXPECT_TRUE(Validation::isAllowedExtension(QFileInfo(directory)));
    EXPECT_TRUE(isValid(directory));
}

TEST_F(UploadInput, TemporaryAndLockFilesAreLeftOutByDefault) {
    for (const char* name : {"run.tmp", "RUN.TMP", "~$table.xlsx", "notes.txt~", "run.lock", "run.raw.part",
                             "Thumbs.db", "desktop.ini"})
        EXPECT_EQ(refusal(make(QString::fromLatin1(name))), UploadRefusal::Name) << name;
    for (const char* name : {"tmp", "lock.txt", "a.tmp.txt", "thumbs.db.txt"})
        EXPECT_EQ(refusal(make(QString::fromLatin1(name))), UploadRefusal::None) << name;
}

TEST_F(UploadInput, TheNamesThatAreLeftOutCanBeChosen) {
    UploadFilters filters;
    filters.excludedNames = {QStringLiteral("blank_??.raw")};
    Validation::setFilters(filters);
    EXPECT_EQ(refusal(make(QStringLiteral("blank_01.raw"))), UploadRefusal::Name);
    EXPECT_EQ(refusal(make(QStringLiteral("blank_001.raw"))), UploadRefusal::None);
    EXPECT_EQ(refusal(make(QStringLiteral("run.tmp"))), UploadRefusal::None);
}

TEST_F(UploadInput, HiddenFilesAreTakenOnlyWhenAskedFor) {
    const QString path = make(QStringLiteral(".hidden"));
    EXPECT_EQ(refusal(path), UploadRefusal::Hidden);
    UploadFilters filters;
    filters.takesHidden = true;
    Validation::setFilters(filters);
    EXPECT_EQ(refusal(path), UploadRefusal::None);
}

TEST_F(UploadInput, SocketsPipesAndDevicesAreNotUploaded) {
    const QString pipe = m_dir.filePath(QStringLiteral("pipe"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
    EXPECT_EQ(refusal(pipe), UploadRefusal::Special);
    EXPECT_EQ(refusal(QStringLiteral("/dev/null")), UploadRefusal::Special);

    const int fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray path = QFile::encodeName(m_dir.filePath(QStringLiteral("socket")));
    ASSERT_LT(size_t(path.size()), sizeof address.sun_path);
    std::copy(path.begin(), path.end(), address.sun_path);
    ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(refusal(QFile::decodeName(path)), UploadRefusal::Special);
    ::close(fd);
}

TEST_F(UploadInput, ALinkToAFileIsThatFileAndOneToADirectoryIsNotFollowed) {
    const QString file = m_dir.filePath(QStringLiteral("link.txt"));
    ASSERT_TRUE(QFile::link(make(QStringLiteral("notes.txt")), file));
    EXPECT_EQ(refusal(file), UploadRefusal::None);
    const QString directory = m_dir.filePath(QStringLiteral("link"));
    ASSERT_TRUE(QFile::link(m_dir.path(), directory));
    EXPECT_EQ(refusal(directory), UploadRefusal::DirectoryLink);
    const QString dangling = m_dir.filePath(QStringLiteral("dangling"));
    ASSERT_TRUE(QFile::link(m_dir.filePath(QStringLiteral("nothing")), dangling));
    EXPECT_EQ(refusal(dangling), UploadRefusal::Missing);
}

TEST_F(UploadInput, ANameThatIsNotUtf8IsToldFromAMissingFile) {
    const QByteArray path = QFile::encodeName(m_dir.path()) + "/run\xff.raw";
    FILE* const file = std::fopen(path.constData(), "w");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
    // As the command line gives it; listings of Qt leave such names out.
    EXPECT_EQ(refusal(QFile::decodeName(path)), UploadRefusal::UnreadableName);
    EXPECT_EQ(refusal(m_dir.filePath(QStringLiteral("nothing"))), UploadRefusal::Missing);
    ASSERT_EQ(::unlink(path.constData()), 0);
}

TEST_F(UploadInput, EveryRefusalIsExplainedWithThePath) {
    EXPECT_EQ(Validation::explanation(UploadRefusal::None, QStringLiteral("p")), QString());
    for (int i = int(UploadRefusal::Missing); i <= int(UploadRefusal::StillWritten); ++i)
        EXPECT_TRUE(Validation::explanation(UploadRefusal(i), QStringLiteral("/a/path"))
                        .contains(QStringLiteral("\"/a/path\"")))
            << i;
}

TEST_F(UploadInput, TheAsynchronousCheckRecognisesRawData) {
    const auto plain = check(make(QStringLiteral("notes.txt")));
    EXPECT_TRUE(plain.isValidPath);
    EXPECT_FALSE(plain.isValidMsData);
    const auto raw = check(make(QStringLiteral("run.mgf"), spectra()));
    EXPECT_TRUE(raw.isValidPath);
    EXPECT_TRUE(raw.isValidMsData);
}

TEST_F(UploadInput, APackedAcquisitionIsNoRawData) {
    const auto packed = check(make(QStringLiteral("run.mgf.vonk"), spectra()));
    EXPECT_TRUE(packed.isValidPath);
    EXPECT_FALSE(packed.isValidMsData);
}

TEST_F(UploadInput, TheAsynchronousCheckAppliesTheSameRules) {
    UploadFilters filters;
    filters.allowedExtensions = {QStringLiteral("mgf")};
    Validation::setFilters(filters);
    EXPECT_FALSE(check(make(QStringLiteral("notes.txt"))).isValidPath);
    EXPECT_FALSE(check(make(QStringLiteral(".hidden.mgf"), spectra())).isValidPath);
    EXPECT_FALSE(check(m_dir.filePath(QStringLiteral("nothing.mgf"))).isValidPath);
    EXPECT_TRUE(check(make(QStringLiteral("run.mgf"), spectra())).isValidPath);
}

TEST_F(UploadInput, AnAcquisitionThatDoesNotComeToRestIsLeftOutAndSaysSo) {
    UploadFilters filters;
    filters.quietTime = std::chrono::hours(1);
    filters.patience = 0ms;
    Validation::setFilters(filters);
    for (const QString& name : {QStringLiteral("run.mgf"), QStringLiteral("run.vonk")}) {
        const QString path = make(name, spectra(), QDateTime::currentDateTime());
        EXPECT_EQ(refusal(path), UploadRefusal::None);
        EXPECT_FALSE(check(path).isValidPath);
        EXPECT_EQ(refusal(path), UploadRefusal::StillWritten);
        Validation::setFilters(UploadFilters());
        (void)make(name, spectra()); // written long ago
        EXPECT_TRUE(check(path).isValidPath);
        EXPECT_EQ(refusal(path), UploadRefusal::None);
        Validation::setFilters(filters);
    }
    EXPECT_TRUE(check(make(QStringLiteral("notes.txt"), "text", QDateTime::currentDateTime())).isValidPath);
}

TEST_F(UploadInput, AnAcquisitionWhoseCompanionStillGrowsHasNotComeToRest) {
    UploadFilters filters;
    filters.quietTime = std::chrono::hours(1);
    filters.patience = 0ms;
    Validation::setFilters(filters);
    const QString imaging = make(u"tissue.imzML"_qs, imagingDocument());
    (void)make(u"tissue.ibd"_qs, imagingCompanion(), QDateTime::currentDateTime());
    EXPECT_FALSE(check(imaging).isValidPath);
    EXPECT_EQ(refusal(imaging), UploadRefusal::StillWritten);
    (void)make(u"tissue.ibd"_qs, imagingCompanion());
    EXPECT_TRUE(check(imaging).isValidPath);
    EXPECT_EQ(refusal(imaging), UploadRefusal::None);
}

TEST_F(UploadInput, WhatLooksLikeRawDataAndIsNotWholeIsWaitedForToo) {
    UploadFilters filters;
    filters.quietTime = std::chrono::hours(1);
    filters.patience = 0ms;
    Validation::setFilters(filters);
    const QString imaging = make(u"tissue.imzML"_qs, imagingDocument(), QDateTime::currentDateTime());
    EXPECT_FALSE(check(imaging).isValidPath) << "its companion may be about to come";
    (void)make(u"tissue.imzML"_qs, imagingDocument());
    const auto incomplete = check(imaging);
    EXPECT_TRUE(incomplete.isValidPath);
    EXPECT_FALSE(incomplete.isValidMsData);
}

TEST_F(UploadInput, WhatItIsIsToldAsOfTheEndOfTheWait) {
    UploadFilters filters;
    filters.quietTime = 1ms;
    filters.patience = std::chrono::hours(1);
    Validation::setFilters(filters);
    // By a clock that is ahead: it counts that it stays the same, and the first look never says so.
    CheckTask task(make(u"tissue.imzML"_qs, imagingDocument(), QDateTime::currentDateTime().addDays(1)));
    task.exec();
    {
        const probes::FullPool behindTheFirstLook;
        (void)make(u"tissue.ibd"_qs, imagingCompanion());
    }
    EXPECT_FALSE(task.waitForFinished(60'000).hasError());
    EXPECT_TRUE(task.result.isValidPath);
    EXPECT_TRUE(task.result.isValidMsData);
}

TEST_F(UploadInput, AnAcquisitionThatComesToRestIsTaken) {
    UploadFilters filters;
    filters.quietTime = 1ms;
    filters.patience = std::chrono::hours(1);
    Validation::setFilters(filters);
    // By a clock that is ahead: it counts that it stays the same.
    EXPECT_TRUE(check(make(QStringLiteral("run.mgf"), spectra(), QDateTime::currentDateTime().addDays(1)))
                    .isValidPath);
}

TEST_F(UploadInput, TheWaitForRestEndsWhenTheTaskIsDestroyed) {
    UploadFilters filters;
    filters.quietTime = filters.patience = std::chrono::hours(1);
    Validation::setFilters(filters);
    const QString path = make(QStringLiteral("run.mgf"), spectra(), QDateTime::currentDateTime());
    auto task = std::make_unique<CheckTask>(path);
    task->exec();
    EXPECT_EQ(task->waitForFinished(0).code(), int(ErrorCode::TimedOut));
    task.reset();
    CheckTask canceled(path);
    canceled.exec();
    canceled.cancel();
    EXPECT_TRUE(canceled.isIdle());
}

TEST_F(UploadInput, TheStampOfADirectoryTellsEveryChangeInIt) {
    const QString directory = makeDirectory(QStringLiteral("run.d"));
    (void)makeDirectory(QStringLiteral("run.d/inner"));
    const QDateTime old = QDateTime::currentDateTime().addYears(1);
    (void)make(QStringLiteral("run.d/inner/data.bin"), "1234", old);
    const ContentStamp first = ContentStamp::of(directory);
    EXPECT_EQ(first, ContentStamp::of(directory));
    EXPECT_EQ(first.changedMs, old.toMSecsSinceEpoch());
    EXPECT_EQ(first.entries, 3);
    (void)make(QStringLiteral("run.d/inner/data.bin"), "12345", old);
    EXPECT_NE(first, ContentStamp::of(directory));
}

TEST_F(UploadInput, TheStampOfAFileTellsEveryChangeOfItsCompanions) {
    const QString path = make(QStringLiteral("run.wiff"), "1234");
    const QStringList companions{make(QStringLiteral("run.wiff.scan"), "12")};
    const ContentStamp first = ContentStamp::of(path, companions);
    EXPECT_EQ(first, ContentStamp::of(path, companions));
    EXPECT_EQ(first.bytes, 6);
    EXPECT_EQ(first.entries, 2);
    (void)make(QStringLiteral("run.wiff.scan"), "123");
    const ContentStamp grown = ContentStamp::of(path, companions);
    EXPECT_NE(first, grown);
    const QDateTime later = QDateTime::currentDateTime().addDays(1);
    (void)make(QStringLiteral("run.wiff.scan"), "123", later);
    EXPECT_EQ(ContentStamp::of(path, companions).changedMs, later.toMSecsSinceEpoch());
}

TEST(QuietWatching, WhatIsOldIsQuietAtOnce) {
    QuietWatch watch(2s, 10s);
    EXPECT_EQ(watch.look({1'000, 5, 1}, 3'000, 0ms).state, QuietWatch::State::Quiet);
}

TEST(QuietWatching, WhatIsYoungIsLookedAtAgainWhenItMayBeQuiet) {
    QuietWatch watch(2s, 10s);
    const auto first = watch.look({1'000, 5, 1}, 1'500, 0ms);
    EXPECT_EQ(first.state, QuietWatch::State::Restless);
    EXPECT_EQ(first.nextIn, 1'500ms);
    EXPECT_EQ(watch.look({1'000, 5, 1}, 3'000, 1'500ms).state, QuietWatch::State::Quiet);
}

TEST(QuietWatching, AChangeStartsTheTimeAgainUntilThePatienceEnds) {
    QuietWatch watch(2s, 10s);
    for (int second = 0; second < 10; ++second)
        EXPECT_EQ(
            watch
                .look({second * 1'000 + 900, second, 1}, second * 1'000 + 1'000, std::chrono::seconds(second))
                .state,
            QuietWatch::State::Restless);
    EXPECT_EQ(watch.look({10'900, 10, 1}, 11'000, 10s).state, QuietWatch::State::GivenUp);
}

TEST(QuietWatching, ATimeOfTheFutureIsQuietWhenNothingChanges) {
    QuietWatch watch(2s, 10s);
    EXPECT_EQ(watch.look({99'000, 5, 1}, 1'000, 0ms).nextIn, 2s);
    EXPECT_EQ(watch.look({99'000, 6, 1}, 3'000, 2s).nextIn, 2s); // grew
    EXPECT_EQ(watch.look({99'000, 6, 1}, 5'000, 4s).state, QuietWatch::State::Quiet);
}

TEST(QuietWatching, TheLastLookIsAtTheEndOfThePatience) {
    QuietWatch watch(8s, 10s);
    (void)watch.look({1'000, 1, 1}, 1'000, 0ms);
    EXPECT_EQ(watch.look({5'000, 2, 1}, 5'000, 4s).nextIn, 6s);
}
