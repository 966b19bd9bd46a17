// Files: versions, contents and extended metadata.
#include "api/support.h"

#include "core/json_input.h"
#include "core/json_text.h"
#include "core/ranges.h"

namespace halvane::server {

namespace {

constexpr std::size_t maximumPairs = 1000;
constexpr std::size_t maximumKeyBytes = 255;
constexpr std::size_t maximumValueBytes = 64 * 1024;

void appendVersion(std::string& out, const VersionRecord& version) {
    JsonObject(out)
        .field("version", version.version)
        .field("size", version.size)
        .field("sha256", hexText(version.sha256))
        .field("alias", version.alias)
        .field("data_type", version.dataType)
        .field("created_at", isoText(version.createdAt))
        .field("source_modified_at", isoOrNull(version.sourceModifiedAt))
        .field("created_by", version.createdBy)
        .field("verified", true); // no version exists whose content did not match its SHA-256
}

Response versions(const Caller& caller, Id file, Services& services) {
    std::string data;
    {
        JsonObject object(data);
        JsonList list(object.open("versions"));
        for (const VersionRecord& version : services.catalog.versions(caller, file))
            appendVersion(list.next(), version);
    }
    return success(data);
}

Response path(const Caller& caller, Id file, Services& services) {
    std::string data;
    {
        JsonObject object(data);
        appendPath(object.open("path"), services.catalog.filePath(caller, file));
    }
    return success(data);
}

std::optional<std::int64_t> requestedVersion(const std::string& text) {
    if (text == "latest")
        return std::nullopt;
    const auto version = pathNumber(text);
    if (!version || *version < 1)
        throw ApiError(ErrorCode::NotFound,
                       "There is no such version; versions are whole numbers from 1, or \"latest\".");
    return version;
}

std::shared_ptr<Descriptor> openContent(const ContentRecord& content, Services& services) {
    auto file = std::make_shared<Descriptor>(services.blobs.openBlob(content.blobName));
    if (!file->isOpen())
        throw ApiError(ErrorCode::Internal, "The content '" + content.blobName + "' of the file " +
                                                std::to_string(content.fileId) + " is missing.");
    return file;
}

void attachContent(Response& response, const ContentRecord& content, ByteRange range, Services& services) {
    if (content.blobName.empty())
        response.body = content.inlineContent.substr(range.offset, range.length);
    else
        response.file = FileSlice{openContent(content, services), range.offset, range.length};
}

Response content(const Request& request, const Caller& caller, const PathValues& values, Services& services) {
    const ContentRecord content =
        services.catalog.content(caller, pathId(values[0], "file"), requestedVersion(values[1]));
    const auto size = static_cast<std::uint64_t>(content.size);
    const std::string sha256 = hexText(content.sha256);
    const std::string etag =
        '"' + std::to_string(content.fileId) + '-' + std::to_string(content.version) + '-' + sha256 + '"';
    const std::string lastModified = httpDate(content.createdAt);
    Response response;
    RangeDecision decision;
    if (ifRangeHolds(request.header("If-Range"), etag, lastModified))
        decision = decideRange(request.header("Range"), size);
    if (decision.kind == RangeDecision::Kind::NotSatisfiable) {
        response = failure({ErrorCode::RangeNotSatisfiable,
                            "The range lies outside of the content of " + std::to_string(size) + " bytes."});
        return response.with("Content-Range", unsatisfiedRange(size));
    }
    response.with("Content-Type", "application/octet-stream")
        .with("ETag", etag)
        .with("Accept-Ranges", "bytes");
    response.with("Last-Modified", lastModified).with("Halvane-Content-Sha256", sha256);
    response.with("Halvane-File-Version", std::to_string(content.version));
    ByteRange range{0, size};
    if (decision.kind == RangeDecision::Kind::Partial) {
        range = decision.range;
        response.status = 206;
        response.with("Content-Range", contentRange(range, size));
    } else if (ifNoneMatchNames(request.header("If-None-Match"), etag)) {
        response.status = 304;
        return response;
    }
    if (request.method == "HEAD")
        response.bodyLength = range.length;
    else
        attachContent(response, content, range, services);
    return response;
}

Response trace(const Caller& caller, const PathValues& values, Services& services) {
    return success(R"({"trace":)" +
                   services.catalog.trace(caller, pathId(values[0], "file"), requestedVersion(values[1])) +
                   '}');
}

Response setExtendedMetadata(const Request& request, const Caller& caller, Id file, Services& services) {
    const JsonInput input(request.body);
    const auto values = input.keyValueList("values");
    if (values.size() > maximumPairs)
        throw ApiError(ErrorCode::BadRequest, "The field \"values\" holds more than 1000 pairs.");
    for (const auto& [key, value] : values)
        if (key.empty() || key.size() > maximumKeyBytes || value.size() > maximumValueBytes)
            throw ApiError(ErrorCode::BadRequest, "Keys have 1 to 255 bytes and values at most 65536.");
    services.catalog.setExtendedMetadata(caller, file, values);
    return success("{}");
}

Response extendedMetadata(const Caller& caller, Id file, Services& services) {
    std::string data;
    {
        JsonObject object(data);
        JsonList list(object.open("values"));
        for (const auto& [key, value] : services.catalog.extendedMetadata(caller, file))
            JsonObject(list.next()).field("key", key).field("value", value);
    }
    return success(data);
}

} // namespace

void addFileCalls(Router& router, Services& services) {
    const auto onFile = [&services](Response (*call)(const Caller&, Id, Services&)) {
        return authenticatedCall(services,
                                 [&services, call](Request&, const PathValues& values, const Caller& caller) {
                                     return call(caller, pathId(values[0], "file"), services);
                                 });
    };
    router.add("GET", "/files/{}/path", noBody, onFile(path));
    router.add("GET", "/files/{}/versions", noBody, onFile(versions));
    router.add("GET", "/files/{}/extended-metadata", noBody, onFile(extendedMetadata));
    router.add("PUT", "/files/{}/extended-metadata", finalizeBody,
               authenticatedCall(
                   services, [&services](Request& request, const PathValues& values, const Caller& caller) {
                       return setExtendedMetadata(request, caller, pathId(values[0], "file"), services);
                   }));
    router.add(
        "GET", "/files/{}/versions/{}/trace", noBody,
        authenticatedCall(services, [&services](Request&, const PathValues& values, const Caller& caller) {
            return trace(caller, values, services);
        }));
    for (const char* method : {"GET", "HEAD"})
        router.add(method, "/files/{}/versions/{}/content", noBody,
                   authenticatedCall(services, [&services](Request& request, const PathValues& values,
                                                           const Caller& caller) {
                       return content(request, caller, values, services);
                   }));
}

} // namespace halvane::server
