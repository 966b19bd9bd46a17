#include "core/privileges.h"

#include <algorithm>

namespace halvane::server {

std::optional<PrivilegeSet> PrivilegeSet::parse(std::string_view text) {
    std::uint32_t bits = 0;
    for (std::size_t at = 0; at <= text.size(); at += 2) {
        if (at == text.size() || text[at] < '1' || text[at] > '5')
            return std::nullopt;
        bits |= 1u << (text[at] - '1');
        if (at + 1 == text.size())
            return PrivilegeSet(bits);
        if (text[at + 1] != ',')
            return std::nullopt;
    }
    return std::nullopt;
}

std::string PrivilegeSet::text() const {
    std::string text;
    for (unsigned value = 1; value <= 5; ++value) {
        if (!has(static_cast<Privilege>(value)))
            continue;
        if (!text.empty())
            text += ',';
        text += std::to_string(value);
    }
    return text;
}

PrivilegeSet privilegesHere(const std::vector<Grant>& own, PrivilegeSet inherited, const Identity& who) {
    if (who.isAdmin)
        return PrivilegeSet::all();
    if (own.empty())
        return inherited;
    PrivilegeSet result;
    for (const Grant& grant : own)
        if (std::find(who.groupIds.begin(), who.groupIds.end(), grant.groupId) != who.groupIds.end())
            result = result | grant.privileges;
    return result;
}

std::vector<PrivilegeSet> privilegesAlong(const std::vector<FolderLink>& chain, const Identity& who) {
    std::vector<PrivilegeSet> result;
    result.reserve(chain.size());
    PrivilegeSet inherited;
    for (const FolderLink& link : chain)
        result.push_back(inherited = privilegesHere(link.grants, inherited, who));
    return result;
}

std::size_t visibleFrom(const std::vector<PrivilegeSet>& privileges) {
    std::size_t from = privileges.size();
    while (from > 0 && privileges[from - 1].has(Privilege::Read))
        --from;
    const bool rootIsNotLast = from == 0 && privileges.size() > 1;
    return rootIsNotLast ? 1 : from;
}

} // namespace halvane::server
