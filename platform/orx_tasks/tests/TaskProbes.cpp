#include "TaskProbes.h"

#include <QEventLoop>
#include <QTimer>

namespace orx::probes {

void deleteLeftovers() {
    QEventLoop loop;
    QTimer::singleShot(0, &loop, &QEventLoop::quit);
    loop.exec();
}

} // namespace orx::probes
