#pragma once

#include "ClashAnswerer.h"

#include <Task.h>

#include <QPointer>

namespace halvane::host {

//! One step of a download that waits for what somebody decides about a clash. Ends with the error of the
//! decision. Cancelled, it takes the question back.
class ClashStepTask : public orx::Task {
    Q_OBJECT
public:
    ClashStepTask(ClashAnswerer& answerer, const Clash& clash);
    ~ClashStepTask() override;

    //! After success.
    const ClashAnswerer::Decision& decision() const { return m_decision; }

protected:
    void start() override;
    void doCancel() override;

private:
    void withdraw();

    const QPointer<ClashAnswerer> m_answerer;
    const Clash m_clash;
    int m_number = 0;
    ClashAnswerer::Decision m_decision = IfExists::Skip;
};

} // namespace halvane::host
