#include "PackingFixture.h"
#include "SmallWriter.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStorageInfo>
#include <QtEndian>

#include <algorithm>
#include <atomic>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <system_error>
#include <thread>
#include <unistd.h>

using namespace orx;
using namespace orx::vonk;

namespace {

class Packing : public PackingFixture {
protected:
    Result<VonkMetadata> tryPack(const QString& source, const WorkWatch& watch = {}) const {
        return VonkPacker::pack(inputOf(source), packed(), watch);
    }
    QString packed() const { return out(QStringLiteral("run1.d.vonk")); }

    //! \a change is made when some of the data has been packed and some not.
    Error packWhile(const QString& source, const std::function<void()>& change) const {
        bool isDone = false;
        WorkWatch watch;
        watch.progress = [&](qint64, qint64) {
            if (!std::exchange(isDone, true))
                change();
        };
        const auto metadata = tryPack(source, watch);
        EXPECT_TRUE(isDone);
        return metadata.error();
    }

    void expectChanged(const Error& error, const QString& named) const {
        EXPECT_TRUE(error.is(ErrorCode::FileChanged)) << error.traceText().toStdString();
        EXPECT_TRUE(error.errorMessage().contains(named)) << error.errorMessage().toStdString();
        EXPECT_EQ(names(out()), QStringList());
    }
};

TEST_F(Packing, StockToolsAcceptTheFileAndRestoreEverything) {
    const QString source = makeAcquisition();
    pack(source, packed());
    outputOf(QStringLiteral("zstd"), {QStringLiteral("-tq"), packed()});
    const QStringList listed =
        outputOf(QStringLiteral("tar"), {QStringLiteral("--zstd"), QStringLiteral("-tf"), packed()})
            .split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    EXPECT_EQ(listed.first(), QStringLiteral("content/run1.d/"));
    EXPECT_EQ(listed.size(), 8);
    QDir().mkpath(out(QStringLiteral("tar")));
    outputOf(QStringLiteral("tar"), {QStringLiteral("--zstd"), QStringLiteral("-xf"), packed(),
                                     QStringLiteral("-C"), out(QStringLiteral("tar"))});
    EXPECT_EQ(tree(out(QStringLiteral("tar/content"))), tree(in()));
}

TEST_F(Packing, ComesBackAsItWas) {
    const QString source = makeAcquisition();
    pack(source, packed());
    EXPECT_FALSE(checked(packed(), Vonk::Check::Full).hasError());
    Vonk vonk(packed());
    ASSERT_FALSE(vonk.open().hasError());
    const Error error = vonk.unpack(out(QStringLiteral("run1.d")));
    ASSERT_FALSE(error.hasError()) << error.traceText().toStdString();
    EXPECT_EQ(names(out(QStringLiteral("run1.d"))), QStringList{QStringLiteral("content")});
    EXPECT_EQ(tree(out(QStringLiteral("run1.d/content"))), tree(in()));
}

TEST_F(Packing, SaysWhatWasPacked) {
    write(in(QStringLiteral("run1.raw")), "abc", 1'700'000'000, 5);
    const auto metadata = tryPack(in(QStringLiteral("run1.raw")));
    ASSERT_FALSE(metadata.hasError());
    EXPECT_EQ(metadata->formatVersion, vonkVersion());
    EXPECT_EQ(metadata->name, QStringLiteral("run1.raw"));
    EXPECT_EQ(metadata->sourceKind, QStringLiteral("test"));
    const VonkEntry expected{QStringLiteral("content/run1.raw"),
                             VonkEntry::Type::File,
                             3,
                             {1'700'000'000, 5},
                             "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"};
    EXPECT_EQ(metadata->entries, QList<VonkEntry>{expected});
    Vonk vonk(packed());
    ASSERT_FALSE(vonk.open().hasError());
    EXPECT_EQ(vonk.metadata(), *metadata);
}

TEST_F(Packing, GivesTheSameBytesForTheSameInput) {
    const QString source = makeAcquisition();
    pack(source, packed());
    pack(source, out(QStringLiteral("again.vonk")));
    const QByteArray first = read(packed());
    EXPECT_EQ(first, read(out(QStringLiteral("again.vonk"))));
    // Made in the reverse order, under another path.
    ASSERT_TRUE(QDir().mkpath(out(QStringLiteral("run1.d"))));
    QStringList all = names(source);
    ASSERT_EQ(all.size(), 6);
    std::reverse(all.begin(), all.end());
    for (const QString& name : std::as_const(all))
        outputOf(QStringLiteral("cp"),
                 {QStringLiteral("-a"), source + QLatin1Char('/') + name, out(QStringLiteral("run1.d"))});
    setTime(out(QStringLiteral("run1.d")), 1'600'000'000, 5);
    pack(out(QStringLiteral("run1.d")), out(QStringLiteral("moved.vonk")));
    EXPECT_EQ(first, read(out(QStringLiteral("moved.vonk"))));
}

TEST_F(Packing, StoresWhatDoesNotCompress) {
    write(in(QStringLiteral("noise")), noise(3'000'000));
    pack(in(QStringLiteral("noise")), packed());
    const qint64 size = QFileInfo(packed()).size();
    EXPECT_GT(size, 3'000'000);
    EXPECT_LT(size, 3'002'000);
    outputOf(QStringLiteral("zstd"), {QStringLiteral("-tq"), packed()});
    // The first data chunk begins after the header and one head chunk; its first block is raw and full.
    const QByteArray bytes = read(packed());
    const qsizetype data = bytes.indexOf(QByteArray::fromHex("28b52ffd"), 40);
    EXPECT_EQ(qFromLittleEndian<quint32>(bytes.constData() + data + 5), 1U << 20);
    EXPECT_EQ(qFromLittleEndian<quint32>(bytes.constData() + data + 9) & 0xffffff, (128U * 1024) << 3);
    EXPECT_FALSE(checked(packed(), Vonk::Check::Full).hasError());
}

TEST_F(Packing, TakesFilesOfEverySizeAroundTheLimits) {
    for (const qsizetype size :
         {qsizetype(0), qsizetype(1), qsizetype(511), qsizetype(512), qsizetype(513), qsizetype(1 << 20) - 1,
          qsizetype(1 << 20), qsizetype(1 << 20) + 1, qsizetype(20 << 20)})
        write(in(QStringLiteral("run/%1").arg(size)), text(size, quint32(size)));
    pack(in(QStringLiteral("run")), packed());
    outputOf(QStringLiteral("tar"),
             {QStringLiteral("--zstd"), QStringLiteral("-xf"), packed(), QStringLiteral("-C"), out()});
    EXPECT_EQ(tree(out(QStringLiteral("content"))), tree(in()));
    Vonk vonk(packed());
    ASSERT_FALSE(vonk.open().hasError());
    ASSERT_FALSE(vonk.unpack(out(QStringLiteral("ours"))).hasError());
    EXPECT_EQ(tree(out(QStringLiteral("ours/content"))), tree(in()));
}

TEST_F(Packing, KeepsTimesBefore1970AndSizesNobodyHas) {
    write(in(QStringLiteral("run/old")), "x", -100, 5);
    write(in(QStringLiteral("run/late")), "x", 9'000'000'000);
    pack(in(QStringLiteral("run")), packed());
    outputOf(QStringLiteral("tar"),
             {QStringLiteral("--zstd"), QStringLiteral("-xf"), packed(), QStringLiteral("-C"), out()});
    EXPECT_EQ(tree(out(QStringLiteral("content"))), tree(in()));
    Vonk vonk(packed());
    ASSERT_FALSE(vonk.open().hasError());
    ASSERT_FALSE(vonk.unpack(out(QStringLiteral("ours"))).hasError());
    EXPECT_EQ(tree(out(QStringLiteral("ours/content"))), tree(in()));
}

// File systems hold different times: some keep this one, and some the next that they have.
TEST_F(Packing, RefusesATimeThatCouldNotComeBack) {
    QTemporaryDir memory(QStringLiteral("/dev/shm/packing-XXXXXX"));
    const QString directory = memory.isValid() ? memory.path() : in();
    const QString path = directory + QStringLiteral("/late.raw");
    write(path, "m/z", 1'000'000'000'000);
    struct stat info = {};
    ASSERT_EQ(::stat(QFile::encodeName(path).constData(), &info), 0);
    const auto metadata = VonkPacker::pack(inputOf(path), packed());
    if (info.st_mtim.tv_sec < 1'000'000'000'000) {
        EXPECT_FALSE(checked(packed(), Vonk::Check::Full).hasError());
        return;
    }
    EXPECT_TRUE(metadata.error().is(ErrorCode::InvalidArgument));
    EXPECT_EQ(
        metadata.error().errorMessage(),
        QStringLiteral("\"%1\" cannot be packed: its time of modification is impossible; set another one.")
            .arg(path));
    EXPECT_EQ(names(out()), QStringList());
}

TEST_F(Packing, IsNamedAfterTheDirectoryHoweverItIsSaid) {
    const QString source = makeAcquisition();
    const QString before = QDir::currentPath();
    ASSERT_TRUE(QDir::setCurrent(source + QStringLiteral("/AcqData")));
    for (const char* const path : {"..", "../", "../.", "../../run1.d"}) {
        const auto metadata = VonkPacker::pack(inputOf(QString::fromLatin1(path)), packed());
        ASSERT_FALSE(metadata.hasError()) << path;
        EXPECT_EQ(metadata->name, QStringLiteral("run1.d")) << path;
        EXPECT_EQ(metadata->entries.first().path, QStringLiteral("content/run1.d")) << path;
        ASSERT_TRUE(QFile::remove(packed()));
    }
    QDir::setCurrent(before);
}

//! While it lives no thread can be started: none finds room for its stack.
class NoThreads {
public:
    NoThreads() {
        ::pthread_getattr_default_np(&m_before);
        pthread_attr_t attributes = {};
        ::pthread_getattr_default_np(&attributes);
        ::pthread_attr_setstacksize(&attributes, size_t(1) << 47);
        ::pthread_setattr_default_np(&attributes);
        ::pthread_attr_destroy(&attributes);
    }
    ~NoThreads() {
        ::pthread_setattr_default_np(&m_before);
        ::pthread_attr_destroy(&m_before);
    }
    Q_DISABLE_COPY_MOVE(NoThreads)

private:
    pthread_attr_t m_before = {};
};

TEST_F(Packing, GoesOnAloneWhenTheSystemAllowsNoThread) {
    const QString source = makeAcquisition();
    pack(source, out(QStringLiteral("before.vonk")));
    PackInput input = inputOf(source);
    input.summarise = [](std::stop_token) { return PackInput::Summary{QJsonObject(), {}}; };
    const NoThreads none;
    EXPECT_THROW(std::thread([] {}).join(), std::system_error);
    const auto metadata = VonkPacker::pack(input, packed());
    ASSERT_FALSE(metadata.hasError()) << qPrintable(metadata.error().errorMessage());
    EXPECT_FALSE(metadata->runSummary.has_value());
    EXPECT_EQ(metadata->runSummaryAbsent, QStringLiteral("The system allowed no thread to make it."));
    EXPECT_FALSE(checked(packed(), Vonk::Check::Full).hasError());
    Vonk vonk(packed());
    ASSERT_FALSE(vonk.open().hasError());
    ASSERT_FALSE(vonk.unpack(out(QStringLiteral("unpacked"))).hasError());
    EXPECT_EQ(tree(out(QStringLiteral("unpacked/content"))), tree(in()));
}

TEST_F(Packing, PacksCompanionsBesideTheMainFile) {
    write(in(QStringLiteral("run1.imzML")), "index");
    write(in(QStringLiteral("run1.ibd")), "binary");
    PackInput input = inputOf(in(QStringLiteral("run1.imzML")));
    input.companions = {in(QStringLiteral("run1.ibd"))};
    const auto metadata = VonkPacker::pack(input, packed());
    ASSERT_FALSE(metadata.hasError());
    EXPECT_EQ(metadata->name, QStringLiteral("run1.imzML"));
    ASSERT_EQ(metadata->entries.size(), 2);
    EXPECT_EQ(metadata->entries[0].path, QStringLiteral("content/run1.ibd"));
    EXPECT_EQ(metadata->entries[1].path, QStringLiteral("content/run1.imzML"));
}

TEST_F(Packing, PutsTheSummaryOrTheReasonIntoTheManifest) {
    write(in(QStringLiteral("a")), "x");
    PackInput input = inputOf(in(QStringLiteral("a")));
    input.summarise = [](std::stop_token) {
        return PackInput::Summary{QJsonObject{{QStringLiteral("spectra"), 3}}, {}};
    };
    EXPECT_EQ(VonkPacker::pack(input, packed())->runSummary->value(QStringLiteral("spectra")).toInt(), 3);
    input.summarise = [](std::stop_token) {
        return PackInput::Summary{std::nullopt, QStringLiteral("no spectra in it")};
    };
    const auto metadata = VonkPacker::pack(input, out(QStringLiteral("b.vonk")));
    EXPECT_FALSE(metadata->runSummary);
    EXPECT_EQ(metadata->runSummaryAbsent, QStringLiteral("no spectra in it"));
}

TEST_F(Packing, AFileThatGrowsMeanwhileIsAnError) {
    const QString file = in(QStringLiteral("run1.raw"));
    write(file, text(20 << 20));
    expectChanged(packWhile(file,
                            [&] {
                                QFile growing(file);
                                ASSERT_TRUE(growing.open(QIODevice::Append));
                                growing.write("more");
                            }),
                  file);
}

TEST_F(Packing, AFileThatIsCutMeanwhileIsAnError) {
    const QString file = in(QStringLiteral("run1.raw"));
    write(file, text(20 << 20));
    expectChanged(packWhile(file, [&] { ASSERT_TRUE(QFile::resize(file, 1000)); }), file);
}

TEST_F(Packing, AFileWrittenToAfterItWasReadIsAnError) {
    const QString first = in(QStringLiteral("run/a"));
    write(first, text(1000));
    write(in(QStringLiteral("run/b")), text(20 << 20));
    expectChanged(packWhile(in(QStringLiteral("run")),
                            [&] {
                                QFile file(first);
                                ASSERT_TRUE(file.open(QIODevice::ReadWrite));
                                file.write("other");
                            }),
                  first);
}

TEST_F(Packing, AFileWrittenToWhoseTimeIsSetBackIsAnError) {
    const QString first = in(QStringLiteral("run/a"));
    write(first, "right");
    write(in(QStringLiteral("run/b")), text(20 << 20));
    const auto changeTimeOf = [](const QString& path) {
        struct stat info = {};
        EXPECT_EQ(::stat(QFile::encodeName(path).constData(), &info), 0);
        return std::pair(info.st_ctim.tv_sec, info.st_ctim.tv_nsec);
    };
    // The clock of a file system ticks slowly: the change must fall into another tick.
    do
        write(in(QStringLiteral("clock")), "x");
    while (changeTimeOf(in(QStringLiteral("clock"))) == changeTimeOf(first));
    expectChanged(packWhile(in(QStringLiteral("run")), [&] { write(first, "wrong"); }), first);
}

TEST_F(Packing, AFileThatIsReplacedMeanwhileIsAnError) {
    const QString last = in(QStringLiteral("run/z"));
    write(in(QStringLiteral("run/a")), text(20 << 20));
    write(last, text(1000));
    write(in(QStringLiteral("z")), text(1000));
    expectChanged(packWhile(in(QStringLiteral("run")),
                            [&] {
                                ASSERT_EQ(::rename(QFile::encodeName(in(QStringLiteral("z"))).constData(),
                                                   QFile::encodeName(last).constData()),
                                          0);
                            }),
                  in(QStringLiteral("run")));
}

TEST_F(Packing, AFileThatComesMeanwhileIsAnError) {
    write(in(QStringLiteral("run/a")), text(20 << 20));
    expectChanged(packWhile(in(QStringLiteral("run")), [&] { write(in(QStringLiteral("run/new")), "x"); }),
                  in(QStringLiteral("run")));
}

TEST_F(Packing, AFileThatGoesMeanwhileIsAnError) {
    write(in(QStringLiteral("run/a")), text(20 << 20));
    write(in(QStringLiteral("run/b")), "x");
    expectChanged(packWhile(in(QStringLiteral("run")),
                            [&] { ASSERT_TRUE(QFile::remove(in(QStringLiteral("run/b")))); }),
                  in(QStringLiteral("run")));
}

TEST_F(Packing, CancelledAnywhereItLeavesNothing) {
    const QString source = makeAcquisition();
    int calls = 0;
    WorkWatch watch;
    watch.isCanceled = [&] {
        ++calls;
        return false;
    };
    ASSERT_FALSE(tryPack(source, watch).hasError());
    ASSERT_TRUE(QFile::remove(packed()));
    const int all = calls;
    ASSERT_GT(all, 10);
    for (int last = 0; last < all; ++last) {
        int left = last;
        watch.isCanceled = [&] { return left-- <= 0; };
        EXPECT_TRUE(tryPack(source, watch).error().is(ErrorCode::Canceled)) << last;
        EXPECT_EQ(names(out()), QStringList()) << last;
    }
}

TEST_F(Packing, StopsASummaryWhenItIsCancelled) {
    write(in(QStringLiteral("a")), "x");
    PackInput input = inputOf(in(QStringLiteral("a")));
    std::atomic<bool> isCanceled = false;
    std::atomic<bool> wasStopped = false;
    input.summarise = [&](std::stop_token stop) {
        isCanceled = true;
        while (!stop.stop_requested())
            std::this_thread::yield();
        wasStopped = true;
        return PackInput::Summary();
    };
    WorkWatch watch;
    watch.isCanceled = [&] { return isCanceled.load(); };
    EXPECT_TRUE(VonkPacker::pack(input, packed(), watch).error().is(ErrorCode::Canceled));
    EXPECT_TRUE(wasStopped);
    EXPECT_EQ(names(out()), QStringList());
}

TEST_F(Packing, StopsASummaryWhenTheDataCannotBePacked) {
    write(in(QStringLiteral("run/a")), text(20 << 20));
    PackInput input = inputOf(in(QStringLiteral("run")));
    std::atomic<bool> wasStopped = false;
    input.summarise = [&](std::stop_token stop) {
        while (!stop.stop_requested())
            std::this_thread::yield();
        wasStopped = true;
        return PackInput::Summary();
    };
    WorkWatch watch;
    watch.progress = [this](qint64, qint64) { write(in(QStringLiteral("run/new")), "x"); };
    EXPECT_TRUE(VonkPacker::pack(input, packed(), watch).error().is(ErrorCode::FileChanged));
    EXPECT_TRUE(wasStopped);
}

TEST_F(Packing, RefusesWhatTheInputSaysIsNotToBePacked) {
    write(in(QStringLiteral("a")), "x");
    PackInput input = inputOf(in(QStringLiteral("a")));
    input.refusal = QStringLiteral("Its companion is missing.");
    const Error error = VonkPacker::pack(input, packed()).error();
    EXPECT_TRUE(error.is(ErrorCode::InvalidArgument));
    EXPECT_EQ(error.errorMessage(),
              QStringLiteral("\"%1\" cannot be packed: Its companion is missing.").arg(input.path));
    EXPECT_EQ(names(out()), QStringList());
}

TEST_F(Packing, ReportsEveryByteOfTheFiles) {
    const QString source = makeAcquisition();
    QList<qint64> done;
    WorkWatch watch;
    watch.progress = [&](qint64 bytes, qint64 total) {
        done.append(bytes);
        EXPECT_EQ(total, 3'700'007);
    };
    const auto metadata = tryPack(source, watch);
    ASSERT_FALSE(metadata.hasError());
    EXPECT_EQ(metadata->totalSize(), 3'700'007);
    EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
    EXPECT_EQ(done.last(), 3'700'007);
}

TEST_F(Packing, NeverReplacesWhatIsThere) {
    write(in(QStringLiteral("a")), "x");
    write(packed(), "precious");
    EXPECT_TRUE(tryPack(in(QStringLiteral("a"))).error().is(ErrorCode::AlreadyExists));
    EXPECT_EQ(read(packed()), "precious");
    EXPECT_EQ(names(out()).size(), 1);
}

TEST_F(Packing, NeverReplacesWhatCameMeanwhile) {
    write(in(QStringLiteral("a")), "abc");
    const Error error = packWhile(in(QStringLiteral("a")), [this] { write(packed(), "precious"); });
    EXPECT_TRUE(error.is(ErrorCode::AlreadyExists)) << error.traceText().toStdString();
    EXPECT_EQ(read(packed()), "precious");
    EXPECT_EQ(names(out()).size(), 1);
}

TEST_F(Packing, IsRefusedIntoADirectoryThatIsNotThere) {
    write(in(QStringLiteral("a")), "abc");
    const auto metadata =
        VonkPacker::pack(inputOf(in(QStringLiteral("a"))), out(QStringLiteral("no/a.vonk")));
    EXPECT_TRUE(metadata.error().is(ErrorCode::FileNotWritable)) << metadata.errorMessage().toStdString();
}

TEST_F(Packing, IsRefusedIntoItself) {
    const QString source = makeAcquisition();
    for (const char* const name : {"/run1.vonk", "/AcqData/run1.vonk"}) {
        const auto metadata = VonkPacker::pack(inputOf(source), source + QString::fromLatin1(name));
        EXPECT_TRUE(metadata.error().is(ErrorCode::InvalidArgument)) << name;
    }
    pack(source, in(QStringLiteral("run1.d.vonk")));
}

TEST_F(Packing, RefusesLinksAndSpecialFilesNamingThem) {
    write(in(QStringLiteral("run/a")), "x");
    const QString link = in(QStringLiteral("run/link"));
    ASSERT_TRUE(QFile::link(in(QStringLiteral("run/a")), link));
    Error error = tryPack(in(QStringLiteral("run"))).error();
    EXPECT_TRUE(error.is(ErrorCode::FileNotReadable));
    EXPECT_TRUE(error.errorMessage().contains(link));
    ASSERT_TRUE(QFile::remove(link));
    ASSERT_EQ(::mkfifo(QFile::encodeName(link).constData(), 0600), 0);
    error = tryPack(in(QStringLiteral("run"))).error();
    EXPECT_TRUE(error.is(ErrorCode::FileNotReadable));
    EXPECT_TRUE(error.errorMessage().contains(link));
    EXPECT_EQ(names(out()), QStringList());
}

TEST_F(Packing, FollowsALinkThatIsNamedItself) {
    write(in(QStringLiteral("real.raw")), "x");
    ASSERT_TRUE(QFile::link(in(QStringLiteral("real.raw")), in(QStringLiteral("link.raw"))));
    const auto metadata = tryPack(in(QStringLiteral("link.raw")));
    ASSERT_FALSE(metadata.hasError());
    EXPECT_EQ(metadata->entries.first().path, QStringLiteral("content/link.raw"));
    EXPECT_EQ(metadata->entries.first().size, 1);
}

TEST_F(Packing, RefusesNamesThatCouldNotComeBack) {
    for (const QByteArray& name :
         {QByteArray("a\\b"), QByteArray("c:d"), QByteArray("a\nb"), QByteArray("a\xff")}) {
        const QByteArray path = QFile::encodeName(in()) + "/run/" + name;
        ASSERT_TRUE(QDir().mkpath(in(QStringLiteral("run"))));
        const int file = ::creat(path.constData(), 0600);
        ASSERT_GE(file, 0);
        ::close(file);
        const auto metadata = tryPack(in(QStringLiteral("run")));
        EXPECT_TRUE(metadata.hasError()) << name.toStdString();
        ::unlink(path.constData());
    }
    write(in(QStringLiteral("run/Scan.bin")), "x");
    write(in(QStringLiteral("run/scan.bin")), "x");
    EXPECT_TRUE(tryPack(in(QStringLiteral("run"))).error().is(ErrorCode::InvalidArgument));
}

TEST_F(Packing, SaysWhatIsMissing) {
    const Error error = tryPack(in(QStringLiteral("nothing"))).error();
    EXPECT_TRUE(error.is(ErrorCode::NotFound));
    EXPECT_TRUE(error.errorMessage().contains(in(QStringLiteral("nothing"))));
}

TEST_F(Packing, SaysBeforehandWhenThereIsNoRoom) {
    // As large as a packed file may become, without a byte on the disk.
    const qint64 size = (qint64(1) << 42) - (qint64(1) << 22);
    const QString file = in(QStringLiteral("huge.raw"));
    write(file, {});
    ASSERT_EQ(::truncate(QFile::encodeName(file).constData(), size), 0);
    WorkWatch atOnce;
    atOnce.isCanceled = [] { return true; };
    const Error error = tryPack(file, atOnce).error();
    // A disk that has room for it lets the packing begin.
    const bool hasRoom = QStorageInfo(out()).bytesAvailable() > size;
    EXPECT_TRUE(error.is(hasRoom ? ErrorCode::Canceled : ErrorCode::StorageFull))
        << error.errorMessage().toStdString();
    EXPECT_EQ(names(out()), QStringList());
}

TEST_F(Packing, RefusesWhatIsLargerThanTheFormat) {
    const QString file = in(QStringLiteral("huge.raw"));
    write(file, {});
    ASSERT_EQ(::truncate(QFile::encodeName(file).constData(), qint64(1) << 42), 0);
    EXPECT_TRUE(tryPack(file).error().is(ErrorCode::InvalidArgument));
}

} // namespace
