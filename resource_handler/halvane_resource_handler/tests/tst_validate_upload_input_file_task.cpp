#include "LogProbe.h"
#include "UploadFixture.h"

#include <HalvaneValidateUploadInputFileTask.h>
#include <UploadFileInputValidation.h>

using namespace orx;
using namespace orx::testing;

namespace {

class ValidateUploadInput : public UploadTest {
protected:
    ~ValidateUploadInput() override { UploadFileInputValidation::setFilters(UploadFilters()); }

    static void allowOnly(const QString& extension) {
        UploadFilters filters;
        filters.allowedExtensions = {extension};
        UploadFileInputValidation::setFilters(filters);
    }
    QString makeRawData(const QString& name) const {
        QString path = makeFile(name, "BEGIN IONS\nTITLE=1\nPEPMASS=500.5\n100.1 5\n200.2 7\nEND IONS\n");
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::ReadWrite));
        EXPECT_TRUE(
            file.setFileTime(QDateTime::currentDateTime().addDays(-1), QFileDevice::FileModificationTime));
        return path;
    }
    LogProbe log;
};

} // namespace

TEST_F(ValidateUploadInput, RunsInTheCoroutineMode) {
    const HalvaneValidateUploadInputFileTask task({QStringLiteral("/p")});
    EXPECT_EQ(int(task.executionMode()), 2);
    EXPECT_EQ(task.parent(), nullptr);
}

TEST_F(ValidateUploadInput, ARefusedExtensionIsLoggedAndTheContentIsNeverLookedAt) {
    allowOnly(QStringLiteral("mzML"));
    const QString path = makeRawData(QStringLiteral("run.mgf"));
    HalvaneValidateUploadInputFileTask task({path});
    task.exec();
    EXPECT_TRUE(task.isSuccessful()); // at once: nothing asynchronous was started
    EXPECT_FALSE(task.isFileValid());
    EXPECT_FALSE(task.isValidMsData());
    EXPECT_EQ(log.lines(),
              QStringList(QStringLiteral("info|Skip file \"%1\". Its extension is not allowed.").arg(path)));
}

TEST_F(ValidateUploadInput, AnAllowedExtensionIsCheckedWhileTheEventLoopGoesOn) {
    HalvaneValidateUploadInputFileTask task({makeRawData(QStringLiteral("run.mgf"))});
    task.exec();
    EXPECT_TRUE(task.isRunning());
    EXPECT_FALSE(task.isFileValid());
    EXPECT_FALSE(task.isValidMsData());
    EXPECT_FALSE(task.waitForFinished().hasError());
    EXPECT_TRUE(task.isFileValid());
    EXPECT_TRUE(task.isValidMsData());
    EXPECT_TRUE(log.lines().isEmpty());
}

TEST_F(ValidateUploadInput, APathThatDoesNotMatchTheFiltersIsLoggedAndNoError) {
    const QString path = makeFile(QStringLiteral("run.tmp"));
    HalvaneValidateUploadInputFileTask task({path});
    EXPECT_FALSE(run(task).hasError());
    EXPECT_FALSE(task.isFileValid());
    EXPECT_FALSE(task.isValidMsData());
    EXPECT_EQ(log.lines(),
              QStringList(QStringLiteral("info|Skip file \"%1\". It does not match the filters.").arg(path)));
}

TEST_F(ValidateUploadInput, WhatTheCheckSaysOfTheContentIsKeptForARefusedPathToo) {
    const QString path = makeRawData(QStringLiteral("run.mgf"));
    UploadFilters filters;
    filters.quietTime = std::chrono::hours(1'000'000);
    filters.patience = std::chrono::milliseconds(0);
    UploadFileInputValidation::setFilters(filters); // it does not come to rest
    HalvaneValidateUploadInputFileTask task({path});
    EXPECT_FALSE(run(task).hasError());
    EXPECT_FALSE(task.isFileValid());
    EXPECT_TRUE(task.isValidMsData());
    EXPECT_EQ(log.lines().size(), 1);
}

TEST_F(ValidateUploadInput, AMissingPathIsNoError) {
    HalvaneValidateUploadInputFileTask task({filePath(QStringLiteral("nothing"))});
    EXPECT_FALSE(run(task).hasError());
    EXPECT_FALSE(task.isFileValid());
}

TEST_F(ValidateUploadInput, APlainFileIsValidAndNoRawData) {
    HalvaneValidateUploadInputFileTask task({makeFile(QStringLiteral("notes.txt"))});
    EXPECT_FALSE(run(task).hasError());
    EXPECT_TRUE(task.isFileValid());
    EXPECT_FALSE(task.isValidMsData());
}

TEST_F(ValidateUploadInput, TheMessagesAreTranslatedInTheContextOfTheTask) {
    const ContextTranslator translator;
    allowOnly(QStringLiteral("mzML"));
    HalvaneValidateUploadInputFileTask extension({makeFile(QStringLiteral("notes.txt"))});
    EXPECT_FALSE(run(extension).hasError());
    HalvaneValidateUploadInputFileTask filters({makeFile(QStringLiteral(".hidden.mzML"))});
    EXPECT_FALSE(run(filters).hasError());
    ASSERT_EQ(log.lines().size(), 2);
    for (const QString& line : log.lines())
        EXPECT_TRUE(line.startsWith(QStringLiteral("info|orx::HalvaneValidateUploadInputFileTask|Skip file")))
            << qPrintable(line);
}

TEST_F(ValidateUploadInput, MayBeDestroyedOrCancelledWhileThePathIsChecked) {
    const QString path = makeFile(QStringLiteral("notes.txt"));
    auto destroyed =
        std::make_unique<HalvaneValidateUploadInputFileTask>(HalvaneValidateUploadInputFileTask::Input{path});
    destroyed->exec();
    destroyed.reset();
    HalvaneValidateUploadInputFileTask canceled({path});
    canceled.exec();
    canceled.cancel();
    EXPECT_TRUE(canceled.isFinished());
    EXPECT_EQ(canceled.error().code(), int(ErrorCode::Canceled));
    EXPECT_FALSE(canceled.isFileValid());
}
