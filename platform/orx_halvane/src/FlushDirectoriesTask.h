#pragma once

#include <BaseTask.h>
#include <DirectoryFlushes.h>

namespace orx {

//! Flushes the directories that wait, on a worker; also when it was cancelled, before or meanwhile, since
//! what came into them is told as being there. Ends without an error of its own.
class FlushDirectoriesTask : public BaseTask {
    Q_OBJECT
public:
    explicit FlushDirectoriesTask(std::shared_ptr<DirectoryFlushes> flushes);

    //! At the end; those that could not be flushed.
    const QList<DirectoryFlushes::Failure>& failures() const { return *m_failures; }

protected:
    void run() override;
    void runCanceled() override;

private:
    const std::shared_ptr<DirectoryFlushes> m_flushes;
    const std::shared_ptr<QList<DirectoryFlushes::Failure>> m_failures =
        std::make_shared<QList<DirectoryFlushes::Failure>>();
};

} // namespace orx
