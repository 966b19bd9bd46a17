// Folders, listings and privileges.
#include "support/server_test.h"

#include <thread>

namespace halvane::server {

using nlohmann::json;

class FolderCalls : public ServerTest {
protected:
    // A user "anna" of the group "lab", whose token the calls carry from here on.
    void actAsAnna() {
        addUser("anna", {"lab"});
        actAs(login("anna"));
    }
    std::string names(const std::string& path, const char* list) const {
        std::string text;
        const json data = get(path).data();
        for (const json& item : data.at(list))
            text += item.at("name").get<std::string>() + ";";
        return text;
    }
};

TEST_F(FolderCalls, TheRootIsThere) {
    EXPECT_EQ(get("/folders/1").data(), (json{{"id", 1},
                                              {"name", "/"},
                                              {"parent_id", -1},
                                              {"has_children", false},
                                              {"path", {{{"folder_id", 1}, {"folder_name", "/"}}}},
                                              {"usergroup_ids", nullptr},
                                              {"privilege_ids", "1,2,3,4,5"}}));
}

TEST_F(FolderCalls, AFolderKnowsItsPathWithoutTheRoot) {
    const int raw = makeFolder("raw");
    const int year = makeFolder("2026", raw);
    EXPECT_EQ(
        get("/folders/" + std::to_string(year)).data().at("path"),
        (json{{{"folder_id", raw}, {"folder_name", "raw"}}, {{"folder_id", year}, {"folder_name", "2026"}}}));
    EXPECT_EQ(get("/folders/1/folders").data().at("folders"), (json{{{"id", raw},
                                                                     {"name", "raw"},
                                                                     {"parent_id", 1},
                                                                     {"has_children", true},
                                                                     {"usergroup_ids", nullptr},
                                                                     {"privilege_ids", "1,2,3,4,5"}}}));
}

TEST_F(FolderCalls, SiblingsMayShareANameAndNamesComeBackByteForByte) {
    const std::vector<std::string> allowed{"same",
                                           "same",
                                           "\xF0\x9F\xA7\xAA",
                                           "e\xCC\x81",
                                           "\xC3\xA9",
                                           ".hidden",
                                           "trailing  ",
                                           "back\\slash",
                                           "quote\"s",
                                           "\xE2\x80\xAE"
                                           "rtl",
                                           std::string(255, 'x')};
    std::string expected;
    for (const std::string& name : allowed) {
        makeFolder(name);
        expected += name + ";";
    }
    EXPECT_EQ(names("/folders/1/folders", "folders"), expected);
}

TEST_F(FolderCalls, RefusedNamesGetTheirOwnCode) {
    for (const std::string name : {"", ".", "..", "a/b", "a\nb", "\x7F"}) {
        const Reply reply = call("POST", "/folders", {{"name", name}, {"parent_id", 1}});
        EXPECT_EQ(reply.status, 422) << name;
        EXPECT_EQ(reply.errorCode(), 6) << name;
    }
    EXPECT_EQ(call("POST", "/folders", {{"name", std::string(256, 'x')}, {"parent_id", 1}}).errorCode(), 6);
    EXPECT_EQ(rawCall("POST", "/folders", R"({"name": "a\u0000b", "parent_id": 1})").errorCode(), 6);
    EXPECT_EQ(names("/folders/1/folders", "folders"), "");
}

TEST_F(FolderCalls, UnknownParentsGroupsAndFieldsAreTold) {
    EXPECT_EQ(call("POST", "/folders", {{"name", "a"}, {"parent_id", 99}}).errorCode(), 3);
    EXPECT_EQ(
        call("POST", "/folders", {{"name", "a"}, {"parent_id", 1}, {"usergroup_ids", {99}}}).errorCode(), 3);
    EXPECT_EQ(call("POST", "/folders", {{"name", "a"}}).errorMessage(),
              "The field \"parent_id\" is missing.");
    EXPECT_EQ(get("/folders/99").errorMessage(), "There is no folder with the id 99.");
    EXPECT_EQ(get("/folders/abc").errorCode(), 3);
    EXPECT_EQ(get("/folders/99999999999999999999").errorCode(), 3);
    EXPECT_EQ(call("POST", "/folders", {{"name", "a"}, {"parent_id", 1}, {"unknown", {1, 2}}}).status, 200);
}

TEST_F(FolderCalls, AKeyMakesOneFolder) {
    const json body{{"name", "a"}, {"parent_id", 1}};
    const Reply first = call("POST", "/folders", body, keyHeader("k1"));
    EXPECT_EQ(call("POST", "/folders", body, keyHeader("k1")).data(), first.data());
    EXPECT_EQ(call("POST", "/folders", {{"name", "b"}, {"parent_id", 1}}, keyHeader("k1")).errorCode(), 13);
    EXPECT_NE(call("POST", "/folders", body, keyHeader("k2")).data(), first.data());
    EXPECT_EQ(call("POST", "/folders", body, keyHeader("not a key")).errorCode(), 1);
    EXPECT_EQ(call("POST", "/folders", body, keyHeader(std::string(129, 'k'))).errorCode(), 1);
}

TEST_F(FolderCalls, ListingsAreRevalidated) {
    for (const char* list : {"/folders/1/folders", "/folders/1/files"}) {
        const std::string tag = get(list).headers.at("etag");
        const Reply same = get(list, {{"If-None-Match", tag}});
        EXPECT_EQ(same.status, 304);
        EXPECT_EQ(same.body, "");
        makeFolder("a");
        storeFile("f", "x");
        const Reply changed = get(list, {{"If-None-Match", tag}});
        EXPECT_EQ(changed.status, 200);
        EXPECT_NE(changed.headers.at("etag"), tag);
    }
}

TEST_F(FolderCalls, WhatOneMayNotReadLooksAbsent) {
    addGroup("lab");
    const int hidden = makeFolder("hidden");
    const json file = storeFile("f", "x", hidden);
    const std::string fileId = std::to_string(file.at("id").get<int>());
    actAsAnna();
    const std::string base = "/files/" + fileId;
    const std::vector<std::string> paths{"/folders/" + std::to_string(hidden),
                                         "/folders/" + std::to_string(hidden) + "/folders",
                                         "/folders/" + std::to_string(hidden) + "/files",
                                         base,
                                         base + "/path",
                                         base + "/versions",
                                         base + "/versions/1/content",
                                         base + "/extended-metadata"};
    for (const std::string& path : paths) {
        const Reply reply = get(path);
        EXPECT_EQ(reply.status, 404) << path;
        EXPECT_EQ(reply.errorCode(), 3) << path;
    }
    EXPECT_EQ(call("POST", "/folders", {{"name", "a"}, {"parent_id", hidden}}).errorCode(), 3);
    EXPECT_EQ(
        call("POST", "/uploads", {{"name", "a"}, {"size", 1}, {"target_id", hidden}, {"target_type", 1}})
            .errorCode(),
        3);
}

// Paths begin at the root, so that it is there for everybody.
TEST_F(FolderCalls, ARootThatOneMayNotReadHoldsOnlyWhatOneMayRead) {
    addGroup("lab");
    const json file = storeFile("f", "x");
    const int hidden = makeFolder("hidden");
    const int open = makeFolder("open");
    const int below = makeFolder("below", open);
    grant(open, "lab", "1,2");
    actAsAnna();
    EXPECT_EQ(get("/folders/1").data(), (json{{"id", 1},
                                              {"name", "/"},
                                              {"parent_id", -1},
                                              {"has_children", true},
                                              {"path", {{{"folder_id", 1}, {"folder_name", "/"}}}},
                                              {"usergroup_ids", nullptr},
                                              {"privilege_ids", ""}}));
    EXPECT_EQ(names("/folders/1/folders", "folders"), "open;");
    EXPECT_EQ(names("/folders/1/files", "files"), "");
    EXPECT_EQ(get("/files/" + std::to_string(file.at("id").get<int>())).status, 404);
    EXPECT_EQ(get("/folders/" + std::to_string(hidden)).status, 404);
    EXPECT_EQ(get("/folders/" + std::to_string(below)).data().at("path").at(0).at("folder_name"), "open");
    EXPECT_EQ(call("POST", "/folders", {{"name", "a"}, {"parent_id", 1}}).errorCode(), 5);
    EXPECT_EQ(call("POST", "/uploads", {{"name", "a"}, {"size", 1}, {"target_id", 1}, {"target_type", 1}})
                  .errorCode(),
              5);
}

TEST_F(FolderCalls, ARootOfHiddenFoldersHasNoChildren) {
    addGroup("lab");
    makeFolder("hidden");
    actAsAnna();
    EXPECT_EQ(get("/folders/1").data().at("has_children"), false);
    EXPECT_EQ(names("/folders/1/folders", "folders"), "");
}

TEST_F(FolderCalls, AListingTellsWhichFoldersHaveChildrenThatOneMayRead) {
    addGroup("lab");
    addGroup("others");
    for (const char* name : {"open", "closed"}) {
        const int folder = makeFolder(name);
        grant(folder, "lab", "1");
        grant(makeFolder("below", folder), name == std::string("open") ? "lab" : "others", "1");
    }
    actAsAnna();
    const json folders = get("/folders/1/folders").data().at("folders");
    ASSERT_EQ(folders.size(), 2U);
    EXPECT_EQ(folders.at(0).at("has_children"), true);
    EXPECT_EQ(folders.at(1).at("has_children"), false);
}

// Without reading, no other privilege is worth anything.
TEST_F(FolderCalls, ARootThatOneMayNotReadCannotBeWritten) {
    addGroup("lab");
    grant(1, "lab", "2,3");
    actAsAnna();
    EXPECT_EQ(get("/folders/1").data().at("privilege_ids"), "");
    EXPECT_EQ(call("POST", "/folders", {{"name", "a"}, {"parent_id", 1}}).errorCode(), 5);
    EXPECT_EQ(call("POST", "/uploads", {{"name", "a"}, {"size", 1}, {"target_id", 1}, {"target_type", 1}})
                  .errorCode(),
              5);
}

TEST_F(FolderCalls, TheRootsFilesAppearWithThePrivilege) {
    addGroup("lab");
    storeFile("f", "x");
    actAsAnna();
    const std::string hidden = get("/folders/1/files").headers.at("etag");
    grant(1, "lab", "1");
    EXPECT_EQ(get("/folders/1/files", {{"If-None-Match", hidden}}).status, 200);
    const std::string shown = get("/folders/1/files").headers.at("etag");
    grant(1, "lab", "2");
    EXPECT_EQ(get("/folders/1/files", {{"If-None-Match", shown}}).status, 200);
    EXPECT_EQ(names("/folders/1/files", "files"), "");
}

TEST_F(FolderCalls, WhatOneMayOnlyReadCannotBeWritten) {
    addGroup("lab");
    const int folder = makeFolder("readable");
    const json file = storeFile("f", "x", folder);
    grant(folder, "lab", "1");
    actAsAnna();
    EXPECT_EQ(get("/folders/" + std::to_string(folder)).data().at("privilege_ids"), "1");
    EXPECT_EQ(contentOf(file.at("id")), "x");
    const Reply reply = call("POST", "/folders", {{"name", "a"}, {"parent_id", folder}});
    EXPECT_EQ(reply.status, 403);
    EXPECT_EQ(reply.errorCode(), 5);
    EXPECT_EQ(
        call("POST", "/uploads", {{"name", "a"}, {"size", 1}, {"target_id", folder}, {"target_type", 1}})
            .errorCode(),
        5);
    EXPECT_EQ(call("POST", "/uploads",
                   {{"name", "a"}, {"size", 1}, {"target_id", file.at("id")}, {"target_type", 0}})
                  .errorCode(),
              5);
    EXPECT_EQ(call("PUT", "/files/" + std::to_string(file.at("id").get<int>()) + "/extended-metadata",
                   {{"values", json::array()}})
                  .errorCode(),
              5);
}

TEST_F(FolderCalls, PrivilegesAreInheritedUntilAFolderHasItsOwn) {
    addGroup("lab");
    addGroup("other");
    const int top = makeFolder("top");
    grant(top, "lab", "1,2,3");
    const int below = makeFolder("below", top);
    const int closed = makeFolder("closed", top);
    grant(closed, "other", "1");
    actAsAnna();
    EXPECT_EQ(get("/folders/" + std::to_string(below)).data().at("privilege_ids"), "1,2,3");
    EXPECT_EQ(get("/folders/" + std::to_string(below)).data().at("path").size(), 2U);
    EXPECT_EQ(get("/folders/" + std::to_string(closed)).status, 404);
    EXPECT_EQ(names("/folders/" + std::to_string(top) + "/folders", "folders"), "below;");
    EXPECT_EQ(get("/folders/" + std::to_string(top)).data().at("path").at(0).at("folder_name"), "top");
    storeFile("f", "x", below);
}

TEST_F(FolderCalls, GroupsGivenToANewFolderGetTheCreatorsPrivileges) {
    const int lab = addGroup("lab");
    grant(1, "lab", "1,3");
    actAsAnna();
    const int own = makeFolder("own", 1, json::array({lab}));
    const json folder = get("/folders/" + std::to_string(own)).data();
    EXPECT_EQ(folder.at("usergroup_ids"), std::to_string(lab));
    EXPECT_EQ(folder.at("privilege_ids"), "1,3");
    EXPECT_EQ(get("/groups").data().at("groups"), (json{{{"id", lab}, {"name", "lab"}}}));
}

TEST_F(FolderCalls, AGrantChangesTheTagOfListings) {
    addGroup("lab");
    const int folder = makeFolder("a");
    grant(1, "lab", "1");
    actAsAnna();
    const std::string tag = get("/folders/1/folders").headers.at("etag");
    grant(folder, "lab", "1,2");
    const Reply reply = get("/folders/1/folders", {{"If-None-Match", tag}});
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.data().at("folders").at(0).at("privilege_ids"), "1,2");
}

TEST_F(FolderCalls, AUserWhoLosesThePrivilegeLosesTheListing) {
    addGroup("lab");
    addGroup("other");
    const int folder = makeFolder("a");
    grant(folder, "lab", "1");
    actAsAnna();
    const std::string path = "/folders/" + std::to_string(folder) + "/files";
    const std::string tag = get(path).headers.at("etag");
    grant(folder, "lab", "2");
    EXPECT_EQ(get(path, {{"If-None-Match", tag}}).status, 404);
}

TEST_F(FolderCalls, ARemovedFolderTakesEverythingBelowWithIt) {
    const int folder = makeFolder("a");
    const int inner = makeFolder("b", folder);
    const json large = storeFile("large", sampleBytes(200'000), inner);
    const json small = storeFile("small", "x", inner);
    const json open = openUpload("open", 200'000, inner);
    putChunk(open.at("upload_id"), 0, sampleBytes(100'000));
    const std::string tag = get("/folders/1/folders").headers.at("etag");
    const ProgramResult result = command({"folder", "remove", "--folder", std::to_string(folder)});
    EXPECT_EQ(result.exitCode, 0) << result.err;
    EXPECT_EQ(get("/folders/" + std::to_string(inner)).errorCode(), 3);
    EXPECT_EQ(get("/files/" + std::to_string(large.at("id").get<int>())).errorCode(), 3);
    EXPECT_EQ(get("/files/" + std::to_string(small.at("id").get<int>()) + "/versions/1/content").errorCode(),
              3);
    EXPECT_EQ(get("/uploads/" + std::to_string(open.at("upload_id").get<int>())).errorCode(), 3);
    EXPECT_EQ(get("/folders/1/folders", {{"If-None-Match", tag}}).data().at("folders").size(), 0U);
    EXPECT_EQ(stop(), 0);
    start({"--sweep-interval-ms", "1"});
    waitUntil([&] { return filesBelow("blobs").empty() && filesBelow("staging").empty(); });
}

TEST_F(FolderCalls, AListingOfManyFilesIsWhole) {
    const int folder = makeFolder("many");
    for (int i = 0; i < 60; ++i)
        storeFile("f" + std::to_string(i), std::to_string(i), folder);
    const json files = get("/folders/" + std::to_string(folder) + "/files").data().at("files");
    ASSERT_EQ(files.size(), 60U);
    EXPECT_EQ(files.at(59).at("name"), "f59");
}

} // namespace halvane::server
