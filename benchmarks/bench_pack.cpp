// Packed acquisitions and raw data. usage:
//   bench_pack make plain|zlib|mixed SPECTRA.mgf MIB TARGET   mzML with arrays as they are or compressed; or
//                                                             a directory of both and of noise
//   bench_pack make old SPECTRA.mgf MIB TARGET                a packed acquisition of format version 1
//   bench_pack pack SOURCE TARGET
//   bench_pack check|quick|unpack FILE [TARGET]
//   bench_pack summarise FILE
// The last ones print {"ms": milliseconds} of the call itself; of "quick" the median of eleven, since one is
// shorter than what the machine does beside it. "make" perturbs the peaks of real spectra, so that no window,
// however long, finds anything twice, neither in a file nor in those of other names.
#include "SmallWriter.h"

#include <RunSummaries.h>
#include <Vonk.h>
#include <VonkPacker.h>

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <span>
#include <vector>
#include <zlib.h>

using namespace orx;
using namespace orx::vonk;

namespace {

using Peak = std::pair<double, double>;

constexpr size_t peaksOfSpectrum = 400;

std::vector<Peak> peaksOf(const QString& path) {
    QFile file(path);
    std::vector<Peak> peaks;
    if (!file.open(QIODevice::ReadOnly))
        return peaks;
    for (const QByteArray& line : file.readAll().split('\n')) {
        const QList<QByteArray> numbers = line.simplified().split(' ');
        bool isMz = false;
        const double mz = numbers[0].toDouble(&isMz);
        if (isMz && numbers.size() == 2)
            peaks.emplace_back(mz, numbers[1].toDouble());
    }
    return peaks;
}

class Maker {
public:
    Maker(std::vector<Peak> peaks, bool isCompressed, const QString& target)
        : m_peaks(std::move(peaks))
        , m_isCompressed(isCompressed)
        , m_random(qChecksum(QFileInfo(target).fileName().toUtf8())) {}

    Error mzml(const QString& path, qint64 bytes) {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            return Error(ErrorCode::FileNotWritable, file.errorString());
        file.write(
            "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n<mzML version=\"1.1.0\"><run><spectrumList>\n");
        for (int scan = 1; file.pos() < bytes; ++scan)
            file.write(spectrum(scan));
        file.write("</spectrumList></run></mzML>\n");
        return file.flush() ? Error() : Error(ErrorCode::FileNotWritable, file.errorString());
    }

    Error mixed(const QString& directory, qint64 bytes) {
        QDir().mkpath(directory);
        constexpr int files = 250;
        for (int number = 0; number < files; ++number) {
            const QString path = QStringLiteral("%1/part%2").arg(directory).arg(number);
            m_isCompressed = number % 2 == 0;
            // Many small ones and some large ones, which together have that size.
            const qint64 size = number % 10 == 0 ? bytes / 25 - bytes / 1000 : bytes / 9000;
            if (Error error = number % 3 == 0 ? noise(path, size) : mzml(path, size); error.hasError())
                return error;
        }
        return {};
    }

    Error old(const QString& target, qint64 bytes) {
        const QString source = target + QStringLiteral(".mzML");
        ORX_RETURN_ON_ERROR(mzml(source, bytes));
        QFile content(source);
        QFile packed(target);
        if (!content.open(QIODevice::ReadOnly) || !packed.open(QIODevice::WriteOnly))
            return Error(ErrorCode::FileNotWritable, packed.errorString());
        SmallWriter writer(1);
        writer.addFile(QStringLiteral("content/run1.mzML"), content.readAll());
        writer.finish();
        packed.write(writer.bytes());
        content.remove();
        return packed.flush() ? Error() : Error(ErrorCode::FileNotWritable, packed.errorString());
    }

private:
    Error noise(const QString& path, qint64 bytes) {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly))
            return Error(ErrorCode::FileNotWritable, file.errorString());
        std::vector<quint64> block(8192);
        for (qint64 done = 0; done < bytes; done += qint64(block.size() * 8)) {
            for (quint64& number : block)
                number = m_random();
            file.write(reinterpret_cast<const char*>(block.data()), qint64(block.size() * 8));
        }
        return {};
    }

    QByteArray array(const std::vector<double>& values, const char* accession) {
        QByteArray bytes(reinterpret_cast<const char*>(values.data()),
                         qsizetype(values.size() * sizeof(double)));
        if (m_isCompressed) {
            QByteArray small(qsizetype(compressBound(uLong(bytes.size()))), '\0');
            uLongf size = uLongf(small.size());
            compress2(reinterpret_cast<Bytef*>(small.data()), &size,
                      reinterpret_cast<const Bytef*>(bytes.constData()), uLong(bytes.size()), 1);
            bytes = small.left(qsizetype(size));
        }
        return QByteArray("<binaryDataArray><cvParam accession=\"") + accession + "\"/><binary>" +
               bytes.toBase64() + "</binary></binaryDataArray>\n";
    }

    QByteArray spectrum(int scan) {
        std::normal_distribution<double> shift(0, 5e-6);
        std::normal_distribution<double> factor(1, 0.2);
        std::vector<double> mz;
        std::vector<double> intensity;
        const size_t first = m_random() % (m_peaks.size() - peaksOfSpectrum);
        for (const Peak& peak : std::span(m_peaks).subspan(first, peaksOfSpectrum)) {
            mz.push_back(peak.first * (1 + shift(m_random)));
            intensity.push_back(double(float(peak.second * std::abs(factor(m_random)))));
        }
        return "<spectrum index=\"" + QByteArray::number(scan - 1) +
               "\" id=\"scan=" + QByteArray::number(scan) + "\" defaultArrayLength=\"" +
               QByteArray::number(qint64(peaksOfSpectrum)) + "\">\n" + array(mz, "MS:1000514") +
               array(intensity, "MS:1000515") + "</spectrum>\n";
    }

    std::vector<Peak> m_peaks;
    bool m_isCompressed;
    std::mt19937_64 m_random;
};

Error make(const QStringList& arguments) {
    std::vector<Peak> peaks = peaksOf(arguments[3]);
    if (peaks.size() <= peaksOfSpectrum)
        return Error(ErrorCode::FileNotReadable,
                     QStringLiteral("There are too few peaks in %1.").arg(arguments[3]));
    Maker maker(std::move(peaks), arguments[2] == QLatin1String("zlib"), arguments[5]);
    const qint64 bytes = arguments[4].toLongLong() * 1024 * 1024;
    if (arguments[2] == QLatin1String("old"))
        return maker.old(arguments[5], bytes);
    return arguments[2] == QLatin1String("mixed") ? maker.mixed(arguments[5], bytes)
                                                  : maker.mzml(arguments[5], bytes);
}

Error read(const QString& what, const QString& path, const QString& target) {
    Vonk vonk(path);
    ORX_RETURN_ON_ERROR(vonk.open());
    if (what == QLatin1String("unpack"))
        return vonk.unpack(target);
    return vonk.validate(what == QLatin1String("check") ? Vonk::Check::Full : Vonk::Check::Quick);
}

Error summariseRun(const QString& path) {
    const auto summary = summarise(path);
    if (summary && summary->spectrumCount() == 0)
        return Error(ErrorCode::General, QStringLiteral("There are no spectra in %1.").arg(path));
    return summary.error();
}

Error pack(const QString& source, const QString& target) {
    PackInput input;
    input.path = source;
    return VonkPacker::pack(input, target).error();
}

} // namespace

int main(int argc, char** argv) {
    QStringList arguments;
    for (int i = 0; i < argc; ++i)
        arguments << QFile::decodeName(argv[i]);
    const QString what = arguments.value(1);
    if (argc < 3 || (what == QLatin1String("make") && argc != 6))
        return 2;
    std::vector<double> times;
    for (int run = 0; run < (what == QLatin1String("quick") ? 11 : 1); ++run) {
        const auto start = std::chrono::steady_clock::now();
        const Error error = what == QLatin1String("make")   ? make(arguments)
                            : what == QLatin1String("pack") ? pack(arguments[2], arguments.value(3))
                            : what == QLatin1String("summarise")
                                ? summariseRun(arguments[2])
                                : read(what, arguments[2], arguments.value(3));
        times.push_back(
            std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count());
        if (error.hasError()) {
            std::fprintf(stderr, "%s\n", qPrintable(error.traceText()));
            return 1;
        }
    }
    std::sort(times.begin(), times.end());
    std::printf("{\"ms\": %.3f}\n", times[times.size() / 2]);
    return 0;
}
