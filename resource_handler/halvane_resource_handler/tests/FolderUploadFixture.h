#pragma once

#include "UploadFixture.h"

#include <DuplicateUploadPolicy.h>
#include <tasks/HalvaneFolderUploadTask.h>

#include <QDir>

namespace orx::testing {

//! A failed upload does not stop the others.
constexpr HalvaneUploadPolicyOptions GoOn =
    Replace | HalvaneUploadPolicyOptions(HalvaneUploadPolicyOption::KeepGoing);

//! Skips when it is told to, and counts.
class CountedPolicy : public DefaultDuplicateUploadPolicy {
public:
    void decide(const DuplicateUploadPolicyRequestPtr& request) override {
        asked.append(QFileInfo(request->input().localPath).fileName());
        if (skips)
            request->answer(DuplicateUploadAnswer::Skip);
        else
            DefaultDuplicateUploadPolicy::decide(request);
    }
    void cancel() override { ++cancels; }

    QStringList asked;
    bool skips = false;
    int cancels = 0;
};

//! Uploads of one local directory, "raw", to a scripted server.
class FolderUpload : public UploadTest {
protected:
    FolderUpload() {
        server.service().setChunkSize(1 << 20);
        EXPECT_TRUE(QDir().mkpath(tree()));
    }

    QString tree(const QString& below = QString()) const {
        return filePath(below.isEmpty() ? QStringLiteral("raw") : QStringLiteral("raw/") + below);
    }
    QString put(const QString& below, const QByteArray& content = "content") const {
        const QString path = tree(below);
        EXPECT_TRUE(QDir().mkpath(QFileInfo(path).path()));
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
        return path;
    }
    //! Keeps its signals as "started sub/b", by the path below the directory.
    std::unique_ptr<HalvaneFolderUploadTask> upload(HalvaneUploadPolicyOptions options = GoOn,
                                                    const QList<int>& groups = {}) {
        auto task = std::make_unique<HalvaneFolderUploadTask>(tree(), 1, groups, options, nullptr);
        const auto follow = [this](auto signal, const QString& word, HalvaneFolderUploadTask* of) {
            QObject::connect(of, signal, of, [this, word](const HalvaneFileUploadTaskBase* file) {
                signalled.append(word + u' ' + QDir(tree()).relativeFilePath(file->path()));
            });
        };
        follow(&HalvaneFolderUploadTask::uploadStarted, QStringLiteral("started"), task.get());
        follow(&HalvaneFolderUploadTask::fileUploadFailed, QStringLiteral("failed"), task.get());
        follow(&HalvaneFolderUploadTask::fileUploadCanceled, QStringLiteral("canceled"), task.get());
        return task;
    }
    //! "folder/name=content" of every file on the server, by name.
    QStringList onServer() const {
        QStringList all;
        for (const auto& file : server.service().files())
            all.append(server.service().folders().value(file.folderId).name + u'/' + file.name + u'=' +
                       QString::fromUtf8(file.versions.last().content));
        all.sort();
        return all;
    }
    //! Opening an upload of this name fails with "not yours".
    void refuse(const QString& name, int times = ScriptedHalvaneServer::Always) {
        server.onRequest = [this, name, times, seen = 0](const ScriptedRequest& request) mutable {
            if (request.line() == u"POST /uploads" && request.json().value(u"name") == name &&
                (times == ScriptedHalvaneServer::Always || seen++ < times))
                server.script(QStringLiteral("POST /uploads"),
                              ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege,
                                                     QStringLiteral("not yours")));
        };
    }
    //! Of the uploads that are opened the first fails with "not yours"; no other gets any further.
    void refuseFirstAndHoldOthers() {
        server.onRequest = [this, refused = false](const ScriptedRequest& request) mutable {
            if (request.line() != u"POST /uploads")
                return;
            if (std::exchange(refused, true))
                server.script(QStringLiteral("POST /uploads"), ScriptedFault::hold());
            else
                server.script(QStringLiteral("POST /uploads"),
                              ScriptedFault::failure(403, HalvaneServerErrorCode::NoPrivilege,
                                                     QStringLiteral("not yours")));
        };
    }

    QStringList signalled;
    ErrorLog errors;
};

} // namespace orx::testing
