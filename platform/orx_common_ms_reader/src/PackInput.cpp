#include "PackInput.h"

#include "PackedText.h"

#include <MsDataFileUtils.h>
#include <RunSummaries.h>

namespace orx::vonk {

PackInput PackInput::fromMs(const QString& path) {
    const MsDataCheck check = MsDataFileUtils::checkMsData(path);
    PackInput input;
    input.path = path;
    input.companions = check.companions;
    input.sourceKind = msDataKindId(check.kind);
    if (!check.isValid())
        input.refusal = check.reason.isEmpty() ? translated("It is no raw acquisition.") : check.reason;
    input.summarise = [path](std::stop_token stop) {
        const Result<RunSummary> summary = orx::summarise(path, std::move(stop));
        return summary ? Summary{summary->toJson(), {}} : Summary{std::nullopt, summary.errorMessage()};
    };
    return input;
}

} // namespace orx::vonk
