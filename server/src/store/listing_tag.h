// The entity tags of listings: what a caller has of one, against what it is. Pure.
#pragma once

#include "store/catalog_store.h"

#include <optional>
#include <string>
#include <string_view>

namespace halvane::server {

// A counter between what must be equal for two tags to be of one listing.
struct ListingTag {
    std::string prefix; // with the opening quote
    std::int64_t change = 0;
    std::string suffix; // with the closing quote

    std::string text() const;
    // The counter of another tag of the same listing; nothing for any other text.
    std::optional<std::int64_t> changeOf(std::string_view tag) const;
};

// Fills the state by what is known. The change after which items have to be visited when those that are new
// or changed since are enough; nothing when all have. Changes before firstBase cannot be told.
std::optional<std::int64_t> compare(const KnownListing& known, const ListingTag& tag, std::int64_t firstBase,
                                    ListingState& state);

} // namespace halvane::server
