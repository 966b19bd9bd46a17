// Any JSON object as metadata: it is read or refused with an error, and what was read is written in a form
// that reads back and is written as the same again, but for the order of the privileges.
#include "FuzzCheck.h"

#include <HalvaneFileResourceMetadata.h>
#include <HalvaneFolderResourceMetadata.h>
#include <HalvaneResourceMetadataCreator.h>
#include <JsonUtils.h>

#include <QJsonArray>

using namespace orx;

namespace {

//! The order of the privileges is that of a set.
QJsonObject withoutPrivileges(QJsonObject json) {
    json.remove(QStringLiteral("privilege_ids"));
    return json;
}

void checkError(const Error& error) {
    FUZZ_CHECK(error.hasError());
    FUZZ_CHECK(!error.errorMessage().isEmpty());
}

void checkAccessors(const HalvaneResourceMetadata& metadata) {
    const QList<int> ids = metadata.idsPath();
    FUZZ_CHECK(ids.size() == metadata.parentFolderIdsPath().size() + 1);
    FUZZ_CHECK(ids.last() == metadata.id());
    FUZZ_CHECK(!metadata.type().isNull());
    (void)metadata.name();
    (void)metadata.fullPath();
}

void readBoth(const QJsonObject& json) {
    const auto metadata = HalvaneResourceMetadataCreator::create(json);
    if (metadata.hasError()) {
        checkError(metadata.error());
        return;
    }
    checkAccessors(**metadata);
    const QJsonObject written = (*metadata)->toJson();
    const auto again = HalvaneResourceMetadataCreator::create(written);
    FUZZ_CHECK(!again.hasError());
    FUZZ_CHECK((*again)->itemType() == (*metadata)->itemType());
    FUZZ_CHECK(withoutPrivileges((*again)->toJson()) == withoutPrivileges(written));
}

//! A file object stays usable after a failure, whatever was read before it.
void readFile(const QJsonObject& json) {
    HalvaneFileResourceMetadata file(HalvaneFileItem(), {QStringLiteral("raw")}, {3});
    const Error error = static_cast<ResourceMetadata&>(file).loadFromJson(json);
    if (error.hasError())
        checkError(error);
    checkAccessors(file);
    (void)file.toJson();
}

void readFolder(const QJsonObject& json) {
    const auto folder = HalvaneFolderResourceMetadata::fromJson(json);
    if (folder.hasError()) {
        checkError(folder.error());
        return;
    }
    checkAccessors(*folder);
    const auto again = HalvaneFolderResourceMetadata::fromJson(folder->toJson());
    FUZZ_CHECK(!again.hasError());
    FUZZ_CHECK(again->privileges() == folder->privileges());
    FUZZ_CHECK(again->userGroups() == folder->userGroups());
    FUZZ_CHECK(again->toJson().value(QStringLiteral("path")) ==
               folder->toJson().value(QStringLiteral("path")));
    const QJsonArray given = json.value(QStringLiteral("path")).toArray();
    const QJsonArray written = folder->toJson().value(QStringLiteral("path")).toArray();
    FUZZ_CHECK(written.size() == std::max<qsizetype>(given.size(), 1));
    const QString nameKey = QStringLiteral("folder_name");
    for (qsizetype i = 0; i < given.size(); ++i)
        FUZZ_CHECK(written.at(i).toObject().value(nameKey) == given.at(i).toObject().value(nameKey));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const auto json =
        JsonUtils::parseObject(QByteArray::fromRawData(reinterpret_cast<const char*>(data), qsizetype(size)));
    if (json.hasError())
        return 0;
    readBoth(*json);
    readFile(*json);
    readFolder(*json);
    return 0;
}
