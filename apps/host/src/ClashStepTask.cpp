#include "ClashStepTask.h"

namespace halvane::host {

ClashStepTask::ClashStepTask(ClashAnswerer& answerer, const Clash& clash)
    : Task(QStringLiteral("AskAbout(%1)").arg(clash.existing.filePath()))
    , m_answerer(&answerer)
    , m_clash(clash) {}

ClashStepTask::~ClashStepTask() {
    withdraw();
}

void ClashStepTask::start() {
    m_number = m_answerer->ask(m_clash, [this](const ClashAnswerer::Decision& decision) {
        m_decision = decision;
        finish(decision.error());
    });
}

void ClashStepTask::doCancel() {
    withdraw();
    finish(error());
}

// The download that is destroyed while somebody thinks takes its answerer with it.
void ClashStepTask::withdraw() {
    if (m_answerer)
        m_answerer->withdraw(m_number);
}

} // namespace halvane::host
