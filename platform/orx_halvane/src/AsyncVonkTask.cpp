#include "AsyncVonkTask.h"

#include <VonkPacker.h>

#include <QFile>

namespace orx {

AsyncVonkTask::AsyncVonkTask(const vonk::PackInput& input, const PathImpl<PathType::File>& vonkPath,
                             QObject* parent)
    : VonkTask(QStringLiteral("PackVonk(%1)").arg(input.path), parent)
    , m_input(input)
    , m_target(vonkPath.toString()) {
    setExecutionMode(ExecutionMode::Worker);
}

AsyncVonkTask::~AsyncVonkTask() {
    stopForGood();
}

Error AsyncVonkTask::work(const vonk::WorkWatch& watch) {
    return vonk::VonkPacker::pack(m_input, m_target, watch).error();
}

void AsyncVonkTask::discard() {
    QFile::remove(m_target);
}

} // namespace orx
