#pragma once

#include <QCoroTask>
#include <Task.h>

namespace halvane::host {

//! Waits until a file or directory that was named is not being written any more, whatever the rules for names
//! say of it. Only acquisitions are waited for. ErrorCode::Busy for one that does not come to rest.
class AwaitRestTask : public orx::Task {
    Q_OBJECT
public:
    explicit AwaitRestTask(const QString& path);
    ~AwaitRestTask() override;

private:
    QCoro::Task<orx::Error> co_doExec() override;

    const QString m_path;
};

} // namespace halvane::host
