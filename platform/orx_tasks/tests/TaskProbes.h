#pragma once

#include "CustomComplexTask.h"

#include <QPointer>
#include <QStringList>

#include <functional>
#include <memory>
#include <ostream>

namespace orx {

inline void PrintTo(const Error& error, std::ostream* out) {
    *out << "error " << error.code() << " \"" << error.errorMessage().toStdString() << '"';
}

namespace probes {

//! What happened, in order.
class EventLog {
public:
    void add(const QString& event) { m_events << event; }
    QString text() const { return m_events.join(u", "); }
    std::string str() const { return text().toStdString(); }
    void clear() { m_events.clear(); }
    int count(const QString& event) const { return int(m_events.count(event)); }

    //! Writes down the signals of \a task, each with \a name.
    void watch(BaseTask* task, const QString& name) {
        const auto note = [this, name](const char* what) {
            return [this, name, what] { add(name + QLatin1Char(' ') + QLatin1String(what)); };
        };
        QObject::connect(task, &BaseTask::started, task, note("started"));
        QObject::connect(task, &BaseTask::canceled, task, note("canceled"));
        QObject::connect(task, &BaseTask::finished, task, note("finished"));
        QObject::connect(task, &BaseTask::idle, task, note("idle"));
    }
    GroupTask::Continuation note(const QString& event) {
        return [this, event](BaseTask* task) { add(task->isCanceled() ? event + u" (canceled)"_qs : event); };
    }

private:
    QStringList m_events;
};

inline Error failure(const QString& text, ErrorCode code = ErrorCode::General) {
    return Error(code, text);
}

//! Runs until somebody finishes it; a cancellation ends it at once.
class ManualTask : public Task {
public:
    explicit ManualTask(const QString& name = QStringLiteral("manual")) : Task(name) {}

protected:
    void start() override {}
    void doCancel() override { finish(Error()); }
};

//! A cancellation does not end it: somebody finishes it.
class StubbornTask : public Task {
public:
    explicit StubbornTask(const QString& name = QStringLiteral("stubborn")) : Task(name) {}

protected:
    void start() override {}
};

//! Its steps are functions of the test.
class ScriptedTask : public Task {
public:
    explicit ScriptedTask(const QString& name = QStringLiteral("scripted")) : Task(name) {}
    ~ScriptedTask() override { stopBody(); }

    std::function<Error(ScriptedTask*)> onInitialize;
    std::function<Error(ScriptedTask*)> onExec;
    std::function<Error(const Error&)> onFinish;

    using BaseTask::restart;
    using BaseTask::setVariantResult;
    using Task::isCancelRequested;

protected:
    Error initialize() override { return onInitialize ? onInitialize(this) : Error(); }
    Error doExec() override { return onExec ? onExec(this) : Error(); }
    Error doFinish() override {
        const Error held = BaseTask::doFinish();
        return onFinish ? onFinish(held) : held;
    }
};

//! A task that ends within exec() with \a error.
inline std::unique_ptr<BaseTask> instant(const Error& error = Error(),
                                         const QString& name = QStringLiteral("instant")) {
    auto task = std::make_unique<ScriptedTask>(name);
    task->onExec = [error](ScriptedTask*) { return error; };
    return task;
}

template <typename Base>
class ScriptedComplex : public Base {
public:
    explicit ScriptedComplex(const QString& name = QStringLiteral("complex")) : Base(name) {}

    std::function<Error(ScriptedComplex*)> onInitialize;
    std::function<Error(const Error&)> onFinish;

    using Base::appendSubtask;
    using Base::execSubtask;
    using Base::execSubtasks;
    using Base::groupTask;
    using Base::restartWithGroup;
    using Base::setGroupTask;

protected:
    Error initialize() override { return onInitialize ? onInitialize(this) : Error(); }
    Error doFinish() override {
        const Error held = Base::doFinish();
        return onFinish ? onFinish(held) : held;
    }
};

using Complex = ScriptedComplex<ComplexTask>;
using CustomComplex = ScriptedComplex<CustomComplexTask>;

//! A manual task and a pointer to it that notices its end.
struct Manual {
    explicit Manual(const QString& name = QStringLiteral("manual"))
        : owned(std::make_unique<ManualTask>(name)), task(owned.get()) {}
    std::unique_ptr<BaseTask> take() { return std::move(owned); }
    ManualTask* operator->() const { return task.data(); }

    std::unique_ptr<ManualTask> owned;
    QPointer<ManualTask> task;
};

//! Lets the event loop delete what is to be deleted later.
void deleteLeftovers();

} // namespace probes
} // namespace orx
