#include "Tracer.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

namespace orx {
namespace {

struct State {
    std::mutex mutex;
    QFile file;
    TracerCategorySettings settings;
    bool first = true;
};

State& state() {
    static State instance;
    return instance;
}

void writeEvent(const QString& event, const QString& id, QLatin1StringView phase) {
    State& s = state();
    const std::lock_guard lock(s.mutex);
    if (!s.file.isOpen())
        return;
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    const QJsonObject object{
        {QStringLiteral("name"), event},
        {QStringLiteral("cat"), event},
        {QStringLiteral("ph"), phase},
        {QStringLiteral("id"), id},
        {QStringLiteral("ts"), double(std::chrono::duration_cast<std::chrono::microseconds>(now).count())},
        {QStringLiteral("pid"), double(QCoreApplication::applicationPid())},
        {QStringLiteral("tid"), double(std::hash<std::thread::id>()(std::this_thread::get_id()) % 1000000)}};
    s.file.write(s.first ? "\n" : ",\n");
    s.file.write(QJsonDocument(object).toJson(QJsonDocument::Compact));
    s.file.flush();
    s.first = false;
}

} // namespace

void TracerCategorySettings::setEnabled(const QString& category, bool enabled) {
    if (enabled)
        m_enabled.insert(category);
    else
        m_enabled.remove(category);
}

Error Tracer::initialize(const QString& path, const TracerCategorySettings& settings) {
    State& s = state();
    const std::lock_guard lock(s.mutex);
    if (s.file.isOpen())
        return Error(ErrorCode::AlreadyExists,
                     QCoreApplication::translate("orx::Tracer", "A trace is already being written."));
    s.file.setFileName(path);
    if (!s.file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
        return Error(ErrorCode::FileNotWritable,
                     QCoreApplication::translate("orx::Tracer", "Could not write the trace file \"%1\": %2")
                         .arg(path, s.file.errorString()));
    }
    s.settings = settings;
    s.first = true;
    s.file.write("[");
    return Error();
}

bool Tracer::isInitialized() {
    const std::lock_guard lock(state().mutex);
    return state().file.isOpen();
}

TracerCategorySettings Tracer::categorySettings() {
    const std::lock_guard lock(state().mutex);
    return state().settings;
}

void Tracer::shutdown() {
    State& s = state();
    const std::lock_guard lock(s.mutex);
    if (!s.file.isOpen())
        return;
    s.file.write("\n]\n");
    s.file.close();
    s.settings = TracerCategorySettings();
}

void Tracer::beginTrace(const QString& event, const QString& id) {
    writeEvent(event, id, QLatin1StringView("b"));
}

void Tracer::endTrace(const QString& event, const QString& id) {
    writeEvent(event, id, QLatin1StringView("e"));
}

} // namespace orx
