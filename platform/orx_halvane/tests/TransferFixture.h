#pragma once

#include "FakeHalvane.h"
#include "HalvaneStateFixture.h"

#include <HalvaneUploadTasks.h>

#include <QFile>

namespace orx::testing {

//! What a task reported, in order.
struct Reported {
    QList<int> progress;
    int finished = 0;
};

//! A file, a folder to send it to, and a server in memory.
class TransferFixture : public HalvaneStateFixture {
protected:
    void SetUp() override;
    void TearDown() override;

    HalvaneFileUploadParameters parameters(int folderId = 7) const;
    //! Runs \a task to its end.
    static Error run(BaseTask& task, Reported* reported = nullptr);
    static void observe(BaseTask& task, Reported& reported);
    //! Until \a condition holds, for a minute at most.
    static void processUntil(const std::function<bool()>& condition);

    //! The upload id; fails the test when it fails.
    int init();
    HalvanePostChunksTask::Input input(int uploadId) const;
    Error postChunks(int uploadId, Reported* reported = nullptr);
    Error finalize(int uploadId, HalvaneApiReference* reference = nullptr);
    //! Records of the file that nobody holds.
    QList<HalvaneUploadRecord> freeRecords() const;
    //! Whether the journal has a record that somebody holds: a new one is made beside it.
    int descriptorsOfFile() const;

    void writeFile(const QByteArray& content) const;

    FakeHalvane fake;
    QString path;
};

} // namespace orx::testing
