// What the catalogue asks for the changes of a listing. They cost what has changed, not what there is: tests
// look at the plans.
#pragma once

namespace halvane::server {

// ?1: the folder, ?2: the change after which.
extern const char* const changedFilesQuery;
// ?1: the parent, ?2 to ?4: as in all queries for readable folders, ?5: the change after which.
extern const char* const changedSubfoldersQuery;

} // namespace halvane::server
