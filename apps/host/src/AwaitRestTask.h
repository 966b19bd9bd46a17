#pragma once

#include <QCoroTask>
#include <Task.h>

namespace halvane::host {

//! Waits until a file or directory that was named is not being written any more, whatever the rules for names
//! say of it. Only acquisitions are waited for. ErrorCode::Busy for one that does not come to rest.
//! Thread: that of the object.
class AwaitRestTask : public orx::Task {
    Q_OBJECT
public:
    explicit AwaitRestTask(const QString& path);
    ~AwaitRestTask() override;

    //! After success: whether it is raw data, as of the end of the wait.
    bool isRawData() const { return m_isRawData; }

private:
    QCoro::Task<orx::Error> co_doExec() override;

    const QString m_path;
    bool m_isRawData = false;
};

} // namespace halvane::host
