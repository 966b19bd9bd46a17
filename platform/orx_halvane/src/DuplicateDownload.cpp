#include "DuplicateDownload.h"

namespace orx {

FileUtils::CopyFilesOptions::DuplicateFilesPolicy
duplicatePolicy(std::optional<DuplicateDownloadPolicy> policy) {
    using CopyPolicy = FileUtils::CopyFilesOptions::DuplicateFilesPolicy;
    switch (policy.value_or(DuplicateDownloadPolicy::Ask)) {
    case DuplicateDownloadPolicy::Overwrite:
        return CopyPolicy::Overwrite;
    case DuplicateDownloadPolicy::Skip:
        return CopyPolicy::Skip;
    case DuplicateDownloadPolicy::Rename:
        return CopyPolicy::Rename;
    case DuplicateDownloadPolicy::OnlyNewer:
        return CopyPolicy::OverwriteOlder;
    case DuplicateDownloadPolicy::Ask:
        break;
    }
    return CopyPolicy::Refuse;
}

DuplicateDownloadSkipOption duplicateDownloadSkipOption(const Task* task) {
    return task && task->isRunning() ? DuplicateDownloadSkipOption::File
                                     : DuplicateDownloadSkipOption::Nothing;
}

} // namespace orx
