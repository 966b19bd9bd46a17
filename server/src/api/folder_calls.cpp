// Folders and listings.
#include "api/support.h"

#include "core/json_input.h"
#include "core/json_text.h"
#include "core/names.h"

namespace halvane::server {

namespace {

std::optional<std::string> joinedIds(const std::vector<Id>& ids) {
    if (ids.empty())
        return std::nullopt;
    std::string text;
    for (const Id id : ids)
        text += (text.empty() ? "" : ",") + std::to_string(id);
    return text;
}

enum class PathShown { Yes, No };

void appendFolder(std::string& out, const FolderRecord& folder, PathShown path) {
    JsonObject object(out);
    object.field("id", folder.id).field("name", folder.name).field("parent_id", folder.parentId);
    object.field("has_children", folder.hasChildren);
    if (path == PathShown::Yes)
        appendPath(object.open("path"), folder.path);
    object.field("usergroup_ids", joinedIds(folder.groupIds))
        .field("privilege_ids", folder.privileges.text());
}

void appendFile(std::string& out, const FileRecord& file) {
    JsonObject(out)
        .field("id", file.id)
        .field("folder_id", file.folderId)
        .field("name", file.name)
        .field("alias", file.alias)
        .field("last_version", file.lastVersion)
        .field("size", file.size)
        .field("sha256", hexText(file.sha256))
        .field("data_type", file.dataType)
        .field("created_at", isoText(file.createdAt))
        .field("modified_at", isoText(file.modifiedAt))
        .field("source_modified_at", isoOrNull(file.sourceModifiedAt))
        .field("created_by", file.createdBy);
}

// The whole reply of a listing, written item by item into one text.
template <typename Record, typename List, typename Append>
Response listing(const Request& request, const char* name, const List& list, const Append& append) {
    std::string body = R"({"status":"success","data":{")" + std::string(name) + R"(":[)";
    bool first = true;
    const KnownListing known{std::string(request.header("If-None-Match")),
                             request.header("A-IM") == listingChanges};
    const ListingState state = list(known, [&](const Record& record) {
        if (!first)
            body += ',';
        first = false;
        append(body, record);
    });
    body += "]}}";
    return listingResponse(state, std::move(body));
}

Response createFolder(const Request& request, const Caller& caller, Services& services) {
    const JsonInput input(request.body);
    const std::string name = input.text("name");
    const Id parent = input.wholeNumber("parent_id", 1, maximumId);
    const std::vector<Id> groups = input.idListOrEmpty("usergroup_ids");
    requireValidName(name, "folder name");
    const CallKey key = callKey(request, "folder\n" + std::to_string(parent) + '\n' +
                                             joinedIds(groups).value_or("") + '\n' + name);
    const Id id = services.catalog.createFolder(caller, parent, name, groups, key);
    std::string data;
    JsonObject(data).field("id", id).field("name", name);
    return success(data);
}

} // namespace

void addFolderCalls(Router& router, Services& services) {
    CatalogStore& catalog = services.catalog;
    router.add(
        "GET", "/folders/{}", noBody,
        authenticatedCall(services, [&catalog](Request&, const PathValues& values, const Caller& caller) {
            std::string data;
            appendFolder(data, catalog.folder(caller, pathId(values[0], "folder")), PathShown::Yes);
            return success(data);
        }));
    router.add("GET", "/folders/{}/folders", noBody,
               authenticatedCall(
                   services, [&catalog](Request& request, const PathValues& values, const Caller& caller) {
                       const Id id = pathId(values[0], "folder");
                       return listing<FolderRecord>(
                           request, "folders",
                           [&](const auto& known, const auto& item) {
                               return catalog.subfolders(caller, id, known, item);
                           },
                           [](std::string& out, const FolderRecord& folder) {
                               appendFolder(out, folder, PathShown::No);
                           });
                   }));
    router.add("GET", "/folders/{}/files", noBody,
               authenticatedCall(
                   services, [&catalog](Request& request, const PathValues& values, const Caller& caller) {
                       const Id id = pathId(values[0], "folder");
                       return listing<FileRecord>(
                           request, "files",
                           [&](const auto& known, const auto& item) {
                               return catalog.files(caller, id, known, item);
                           },
                           appendFile);
                   }));
    router.add(
        "POST", "/folders", jsonBody,
        authenticatedCall(services, [&services](Request& request, const PathValues&, const Caller& caller) {
            return createFolder(request, caller, services);
        }));
    router.add(
        "GET", "/files/{}", noBody,
        authenticatedCall(services, [&catalog](Request&, const PathValues& values, const Caller& caller) {
            std::string data;
            appendFile(data, catalog.file(caller, pathId(values[0], "file")));
            return success(data);
        }));
}

} // namespace halvane::server
