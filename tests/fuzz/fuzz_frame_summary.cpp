// Any bytes as the catalogue of an acquisition: there is a summary or a reason why there is none, and the
// catalogue's directory stays as it was.
#include "SummaryFuzz.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

using namespace orx;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const QTemporaryDir directory(QStringLiteral("/dev/shm/fuzz-XXXXXX"));
    const QString path = directory.filePath(QStringLiteral("analysis.tdf"));
    QFile file(path);
    FUZZ_CHECK(file.open(QIODevice::WriteOnly));
    FUZZ_CHECK(file.write(reinterpret_cast<const char*>(data), qint64(size)) == qint64(size));
    file.close();
    fuzz::checkOutcome(summariseFrames(path, {}));
    FUZZ_CHECK(QDir(directory.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot) ==
               QStringList{QStringLiteral("analysis.tdf")});
    FUZZ_CHECK(QFile(path).size() == qint64(size));
    return 0;
}
