#pragma once

#include "ResourceManager.h"

#include <HalvaneResourceReference.h>
#include <JsonUtils.h>
#include <MirroringInterface.h>

#include <gtest/gtest.h>

#include <functional>
#include <ostream>

namespace orx {

inline void PrintTo(const Error& error, std::ostream* out) {
    *out << "error " << error.code() << " \"" << error.errorMessage().toStdString() << '"';
}

namespace probes {

//! "run1.mzML (file:12@3)"
inline ResourceReferenceSPtr sampleReference() {
    return *HalvaneFileResourceReference::create(12, 3, QStringLiteral("run1.mzML"));
}

template <typename T>
void expectError(const Result<T>& result, ErrorCode code, const QString& message) {
    ASSERT_TRUE(result.hasError());
    EXPECT_TRUE(result.error().is(code)) << result.error().code();
    EXPECT_EQ(result.errorMessage(), message);
}

inline void expectError(const Error& error, ErrorCode code, const QString& message) {
    EXPECT_TRUE(error.is(code)) << error.code();
    EXPECT_EQ(error.errorMessage(), message);
}

//! Its body is a function of the test, called on a worker when it says so.
class BodyTask : public Task {
public:
    explicit BodyTask(std::function<Error(BodyTask*)> body, ExecutionMode mode = ExecutionMode::Direct)
        : Task(QStringLiteral("body")), m_body(std::move(body)) {
        setExecutionMode(mode);
    }
    ~BodyTask() override { stopBody(); }
    using BaseTask::setVariantResult;

protected:
    Error doExec() override { return m_body(this); }

private:
    std::function<Error(BodyTask*)> m_body;
};

//! The same, as a task that can make its directory a mirror.
class MirrorTask final : public BodyTask, public MirroringInterface {
public:
    using BodyTask::BodyTask;
    ~MirrorTask() override { stopBody(); }
    void setMirroring() override { isMirroring = true; }
    bool isMirroring = false;
};

//! Ends at once with \a error, or else with \a result.
inline std::unique_ptr<Task> taskWith(const QVariant& result, const Error& error = Error()) {
    return std::make_unique<BodyTask>([=](BodyTask* self) {
        self->setVariantResult(result);
        return error;
    });
}

//! Metadata of a name and of ids that it keeps as text.
class SampleMetadata final : public ResourceMetadata {
public:
    explicit SampleMetadata(const QString& name) : m_name(name) {}
    QString name() const override { return m_name; }
    QString path() const override { return QStringLiteral("raw/2026"); }
    QString fullPath() const override { return path() + u'/' + name(); }
    FileTypes::Type type() const override { return FileTypes::fileToType(m_name); }
    ItemType itemType() const override { return m_itemType; }
    //! "Name", and after it "Comment", which must be there too.
    Error loadFromJson(const QJsonObject& json) override {
        auto name = JsonUtils::stringValue(json, QStringLiteral("Name"));
        if (name.hasError())
            return name.error();
        m_name = *name;
        auto comment = JsonUtils::stringValue(json, QStringLiteral("Comment"));
        return comment.hasError() ? comment.error() : Error();
    }
    void setItemType(ItemType type) { m_itemType = type; }

private:
    friend class orx::ResourceMetadata;
    SampleMetadata() = default;
    QString m_name;
    ItemType m_itemType = ItemType::File;
};

//! A handler of which every answer is set by the test.
class SampleHandler : public ResourceHandler {
public:
    explicit SampleHandler(const ResourceReferenceSPtr& reference = sampleReference(),
                           ResourceCache* cache = nullptr)
        : ResourceHandler(reference, cache) {}

    Result<ResourceCleanupPolicy> cleanupPolicy() const override { return ResourceCleanupPolicy::Automatic; }
    Error setCleanupPolicy(ResourceCleanupPolicy) override { return Error(); }
    bool isAvailableLocally() const override { return local; }
    using ResourceHandler::cache;

    using TaskMaker = std::function<std::unique_ptr<Task>()>;
    bool local = false;
    TaskMaker makeExistsTask;
    TaskMaker makeMetadataTask;
    //! Null: nothing needs to be fetched.
    TaskMaker makeRetrieveTask;
    Result<Path> path = Path(QStringLiteral("/cache/12"));

protected:
    std::unique_ptr<Task> existsTask() const override { return makeExistsTask(); }
    std::unique_ptr<Task> retrieveMetadataTask() const override { return makeMetadataTask(); }
    std::optional<std::unique_ptr<Task>> retrieveTask() override {
        if (!makeRetrieveTask)
            return std::nullopt;
        return makeRetrieveTask();
    }
    Result<Path> localPath() const override { return path; }
};

} // namespace probes
} // namespace orx
