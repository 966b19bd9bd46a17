#pragma once

#include <QLoggingCategory>
#include <QMutex>
#include <QStringList>

namespace orx::testing {

//! What the library logs in its category while the object lives, as "info|text" or "warning|text". One at a
//! time.
class LogProbe {
public:
    LogProbe() { s_previous = qInstallMessageHandler(&LogProbe::keep); }
    ~LogProbe() {
        qInstallMessageHandler(s_previous);
        s_lines.clear();
    }
    Q_DISABLE_COPY_MOVE(LogProbe)
    static QStringList lines() { return s_lines; }
    //! Of the last line.
    static inline QString file;
    static inline QString function;

private:
    static void keep(QtMsgType type, const QMessageLogContext& context, const QString& text) {
        static QMutex mutex;
        const QMutexLocker lock(&mutex);
        if (qstrcmp(context.category, "orx.halvane_resource_handler_debug") != 0)
            return;
        s_lines << (type == QtInfoMsg ? QStringLiteral("info|") : QStringLiteral("warning|")) + text;
        file = QString::fromUtf8(context.file);
        function = QString::fromUtf8(context.function);
    }
    static inline QtMessageHandler s_previous = nullptr;
    static inline QStringList s_lines;
};

} // namespace orx::testing
