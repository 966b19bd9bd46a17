// Writes the kept files of tests/data: one of each format version. usage: make_packed_samples DIRECTORY
#include "SmallWriter.h"

#include <AtomicFile.h>

#include <cstdio>

using namespace orx;
using namespace orx::vonk;

int main(int argc, char** argv) {
    if (argc != 2)
        return 2;
    for (const int major : {1, 2}) {
        const QString path =
            QStringLiteral("%1/version%2.vonk").arg(QString::fromLocal8Bit(argv[1])).arg(major);
        if (const Error error = AtomicFile::write(path, smallSample(major).bytes()); error.hasError()) {
            std::fprintf(stderr, "%s\n", qPrintable(error.errorMessage()));
            return 1;
        }
    }
    return 0;
}
