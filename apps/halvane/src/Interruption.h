#pragma once

#include <BaseTask.h>

#include <QObject>
#include <QPointer>
#include <QSocketNotifier>

#include <functional>
#include <memory>

namespace halvane::cli {

//! Turns SIGINT, SIGTERM and SIGHUP into the cancellation of the task that runs. The second signal ends the
//! program at once, as if it had never been caught. One per process; thread: the main one.
class Interruption : public QObject {
    Q_OBJECT
public:
    explicit Interruption(QObject* parent = nullptr);
    ~Interruption() override;

    //! A signal has come.
    static bool wasRequested();
    //! Blocks until \a descriptor can be read; false when a signal came instead, also when it came before.
    static bool waitForInput(int descriptor);
    //! The task to cancel when a signal comes; cancelled at once when one has come already. Not owned.
    void watch(orx::BaseTask* task);
    //! What to do when a signal comes, instead of cancelling a task: called from the event loop, at once when
    //! a signal has come already. An empty function ends that.
    void watch(std::function<void()> onRequest);

private:
    void onReadable();

    std::unique_ptr<QSocketNotifier> m_notifier;
    QPointer<orx::BaseTask> m_task;
    std::function<void()> m_onRequest;
};

} // namespace halvane::cli
