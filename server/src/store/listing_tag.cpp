#include "store/listing_tag.h"

#include "core/ranges.h"

#include <charconv>

namespace halvane::server {

std::string ListingTag::text() const {
    return prefix + std::to_string(change) + suffix;
}

std::optional<std::int64_t> ListingTag::changeOf(std::string_view tag) const {
    if (tag.size() <= prefix.size() + suffix.size() || !tag.starts_with(prefix) || !tag.ends_with(suffix))
        return std::nullopt;
    const char* const begin = tag.data() + prefix.size();
    const char* const end = tag.data() + (tag.size() - suffix.size());
    std::int64_t other = 0;
    const auto [last, error] = std::from_chars(begin, end, other);
    if (error != std::errc() || last != end)
        return std::nullopt;
    return other;
}

std::optional<std::int64_t> compare(const KnownListing& known, const ListingTag& tag, std::int64_t firstBase,
                                    ListingState& state) {
    state.etag = tag.text();
    state.notModified = ifNoneMatchNames(known.tags, state.etag);
    const auto since = known.takesChanges ? tag.changeOf(known.tags) : std::nullopt;
    if (state.notModified || !since || *since < firstBase || *since > tag.change)
        return std::nullopt;
    state.base = known.tags;
    return since;
}

} // namespace halvane::server
