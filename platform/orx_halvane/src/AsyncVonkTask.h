#pragma once

#include "orx_halvane_export.h"

#include <PackInput.h>
#include <PathImpl.h>
#include <VonkTask.h>

namespace orx {

//! Packs an acquisition into a packed acquisition file, on a worker unless its execution mode is changed. The
//! file appears complete and durable or not at all; what exists is never replaced. Errors: see VonkPacker.
class ORX_HALVANE_EXPORT AsyncVonkTask final : public vonk::VonkTask {
    Q_OBJECT
public:
    AsyncVonkTask(const vonk::PackInput& input, const PathImpl<PathType::File>& vonkPath,
                  QObject* parent = nullptr);
    ~AsyncVonkTask() override;

protected:
    Error work(const vonk::WorkWatch& watch) override;
    void discard() override;

private:
    vonk::PackInput m_input;
    QString m_target;
};

} // namespace orx
