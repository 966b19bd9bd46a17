#pragma once

#include "Error.h"

#include <QSet>
#include <QString>

namespace orx {

//! Which categories of spans are recorded.
class ORX_COMMON_STABLE_EXPORT TracerCategorySettings {
public:
    void setEnabled(const QString& category, bool enabled);
    bool isEnabled(const QString& category) const { return m_enabled.contains(category); }

private:
    QSet<QString> m_enabled;
};

//! Writes spans into one file in the Trace Event Format (JSON array form), which public trace viewers open,
//! also when the process ended without shutdown(). One per process. Thread: any.
class ORX_COMMON_STABLE_EXPORT Tracer {
public:
    //! Starts a new trace file at \a path, replacing one that is there. Fails when the file cannot be written
    //! or a trace is running.
    static Error initialize(const QString& path, const TracerCategorySettings& settings);
    static bool isInitialized();
    static TracerCategorySettings categorySettings();
    //! Closes the file; nothing is recorded after that.
    static void shutdown();

    //! A span named \a event begins or ends; \a id tells spans of one name apart that run at the same time.
    //! Nothing without initialize().
    static void beginTrace(const QString& event, const QString& id);
    static void endTrace(const QString& event, const QString& id);
};

} // namespace orx
