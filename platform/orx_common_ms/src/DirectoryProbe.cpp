#include "DirectoryProbe.h"

#include "ByteStream.h"
#include "DirectoryNames.h"
#include "FrameCatalogue.h"
#include "ProbeParts.h"
#include "Texts.h"

#include <QFile>
#include <QRegularExpression>

#include <array>
#include <cerrno>
#include <cstring>

namespace orx {

namespace {

// Enough for one look-up by key, whatever else the catalogue holds.
constexpr qint64 kMostSteps = 100'000;

bool isFunctionFile(const QString& lowerCase) {
    static const QRegularExpression pattern(QStringLiteral("^_func[0-9]{3}\\.dat$"));
    return pattern.match(lowerCase).hasMatch();
}

bool isMsdFile(const QString& lowerCase) {
    return lowerCase.startsWith(QLatin1String("msd")) && lowerCase.endsWith(QLatin1String(".ms"));
}

class DirectoryProbe {
public:
    explicit DirectoryProbe(const QByteArray& path) : m_path(path) {}

    MsProbe run();

private:
    //! Each says nothing of a directory that has none of its kind's files.
    void lookForCatalogue();
    void lookForScans();
    void lookForFunctions();
    void lookForFid();
    void lookForMsd();
    QString catalogueProblem(const QByteArray& catalogue);
    QString openCatalogueProblem(const QByteArray& catalogue);

    //! The first regular file with something in it among \a names of \a directory; empty when there is none.
    QByteArray file(const QByteArray& directory, const std::vector<QByteArray>& names);
    QByteArray file(const char* name) { return file(m_path, m_names.find(QString::fromLatin1(name))); }
    //! Whether a name is taken, be it by an empty file.
    bool has(const char* name) const { return !m_names.find(QString::fromLatin1(name)).empty(); }
    void conclude(MsDataKind kind, const QString& problem);

    const QByteArray m_path;
    DirectoryNames m_names;
    MsProbe m_probe;
};

MsProbe DirectoryProbe::run() {
    auto names = DirectoryNames::of(m_path);
    if (!names) {
        m_probe.check.reason =
            msText("It cannot be listed: %1.").arg(QString::fromLocal8Bit(std::strerror(errno)));
        return m_probe;
    }
    m_names = *std::move(names);
    constexpr std::array kinds{&DirectoryProbe::lookForCatalogue, &DirectoryProbe::lookForScans,
                               &DirectoryProbe::lookForFunctions, &DirectoryProbe::lookForFid,
                               &DirectoryProbe::lookForMsd};
    for (const auto look : kinds) {
        (this->*look)();
        if (m_probe.check.isValid())
            return m_probe;
    }
    if (m_probe.check.kind == MsDataKind::None)
        m_probe.check.reason = msText("It is not raw data of a kind that is recognised.");
    return m_probe;
}

//! What is whole wins over what lacks something; of those that lack something the first stays.
void DirectoryProbe::conclude(MsDataKind kind, const QString& problem) {
    if (problem.isEmpty() || m_probe.check.kind == MsDataKind::None)
        m_probe.check = {kind, problem, {}};
}

QByteArray DirectoryProbe::file(const QByteArray& directory, const std::vector<QByteArray>& names) {
    for (const QByteArray& name : names) {
        const QByteArray path = directory + '/' + name;
        const auto stamp = FileStamp::of(path);
        m_probe.witnesses.push_back({path, stamp});
        if (stamp && stamp->isFile() && stamp->size > 0)
            return path;
    }
    return QByteArray();
}

QString missing(const char* name) {
    return msText("Its file \"%1\" is missing or empty.").arg(QString::fromLatin1(name));
}

void DirectoryProbe::lookForCatalogue() {
    if (!has("analysis.tdf"))
        return;
    const QByteArray catalogue = file("analysis.tdf");
    QString problem;
    if (catalogue.isEmpty())
        problem = missing("analysis.tdf");
    else if (file("analysis.tdf_bin").isEmpty())
        problem = missing("analysis.tdf_bin");
    else
        problem = catalogueProblem(catalogue);
    conclude(MsDataKind::FrameCatalogue, problem);
}

//! A log or journal with something in it holds changes that the catalogue itself lacks.
QString DirectoryProbe::catalogueProblem(const QByteArray& catalogue) {
    for (const char* unfinished : {"analysis.tdf-wal", "analysis.tdf-journal"}) {
        if (!file(unfinished).isEmpty())
            return msText("It is not complete: \"%1\" holds changes that are not in its catalogue yet. Close "
                          "the "
                          "program that writes it.")
                .arg(QString::fromLatin1(unfinished));
    }
    return openCatalogueProblem(catalogue);
}

QString DirectoryProbe::openCatalogueProblem(const QByteArray& catalogue) {
    const QString path = QFile::decodeName(catalogue);
    const auto file = ReadOnlyFile::open(path);
    const auto head = file.hasError() ? Result<QByteArray>(file.error()) : file.value()->bytesAt(0, 16);
    if (head.hasError())
        return head.errorMessage();
    if (!isDatabase(*head))
        return msText("Its catalogue \"analysis.tdf\" is not a database.");
    auto opened = FrameCatalogue::open(path, {}, kMostSteps);
    if (opened.hasError())
        return opened.errorMessage();
    const auto closed = opened.value()->property(QStringLiteral("ClosedProperly"));
    if (closed.hasError())
        return closed.errorMessage();
    if (!closed->isEmpty() && closed->trimmed() != QLatin1String("1"))
        return msText("It is not complete: its catalogue says that the acquisition was not closed.");
    return QString();
}

void DirectoryProbe::lookForScans() {
    for (const QByteArray& name : m_names.find(QStringLiteral("AcqData"))) {
        const QByteArray inner = m_path + '/' + name;
        m_probe.witnesses.push_back({inner, FileStamp::of(inner)});
        const auto names = DirectoryNames::of(inner);
        if (!names)
            continue;
        const auto named = [&](const char* each) { return names->find(QString::fromLatin1(each)); };
        if (named("MSScan.bin").empty())
            continue;
        QString problem;
        if (file(inner, named("MSScan.bin")).isEmpty())
            problem = missing("AcqData/MSScan.bin");
        else if (file(inner, named("MSPeak.bin")).isEmpty() && file(inner, named("MSProfile.bin")).isEmpty())
            problem =
                msText("Its files \"AcqData/MSPeak.bin\" and \"AcqData/MSProfile.bin\" are both missing or "
                       "empty.");
        conclude(MsDataKind::ScanPeakDirectory, problem);
    }
}

void DirectoryProbe::lookForFunctions() {
    const auto functions = m_names.findIf(&isFunctionFile);
    if (functions.empty())
        return;
    QString problem;
    if (file(m_path, functions).isEmpty())
        problem = msText("Its files \"_FUNCnnn.DAT\" are empty.");
    else if (file("_HEADER.TXT").isEmpty())
        problem = missing("_HEADER.TXT");
    conclude(MsDataKind::FunctionDirectory, problem);
}

void DirectoryProbe::lookForFid() {
    if (!has("fid"))
        return;
    const bool hasParameters = !file("acqu").isEmpty() || !file("acqus").isEmpty();
    QString problem;
    if (file("fid").isEmpty())
        problem = missing("fid");
    else if (!hasParameters)
        problem = missing("acqus");
    conclude(MsDataKind::FidDirectory, problem);
}

void DirectoryProbe::lookForMsd() {
    const auto traces = m_names.findIf(&isMsdFile);
    if (traces.empty())
        return;
    const bool isFilled = !file(m_path, traces).isEmpty();
    conclude(MsDataKind::MsdDirectory, isFilled ? QString() : msText("Its files \"MSD*.MS\" are empty."));
}

} // namespace

MsProbe probeMsDirectory(const QByteArray& path) {
    return DirectoryProbe(path).run();
}

} // namespace orx
