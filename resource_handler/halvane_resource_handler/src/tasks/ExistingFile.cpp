#include "ExistingFile.h"

#include "../HalvaneResourceHandlerLog.h"
#include "HalvaneVerifyUploadedFileTask.h"

namespace orx {

std::optional<int> existingFileId(const Result<int>& lookup, const QString& fileName, const char* callerFile,
                                  const char* caller) {
    if (!lookup.hasError())
        return *lookup;
    // Both places of the text are filled with the name: what cannot be checked matters, not why.
    const QString text = HalvaneVerifyUploadedFileTask::tr(
                             "Cannot check if %1 file already exists in the target folder.\nError: %1")
                             .arg(fileName, lookup.errorMessage());
    const QLoggingCategory& category = halvaneResourceHandlerLog();
    if (category.isWarningEnabled())
        QMessageLogger(callerFile, 0, caller, category.categoryName()).warning().noquote() << text;
    return std::nullopt;
}

} // namespace orx
