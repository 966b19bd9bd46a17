// Who may do what in which folder: the privilege values and how they are inherited. Pure.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace halvane::server {

enum class Privilege { Read = 1, AddFiles = 2, CreateFolders = 3, Remove = 4, Manage = 5 };

// A set of privileges; the catalogue stores its bits (bit 0 is Read).
class PrivilegeSet {
public:
    PrivilegeSet() = default;
    explicit PrivilegeSet(std::uint32_t bits) : m_bits(bits & allBits) {}

    static PrivilegeSet all() { return PrivilegeSet(allBits); }
    // Reads "1,2,3"; nothing when empty, malformed or holding an unknown value.
    static std::optional<PrivilegeSet> parse(std::string_view text);

    bool has(Privilege privilege) const { return (m_bits >> (static_cast<unsigned>(privilege) - 1)) & 1u; }
    bool empty() const { return m_bits == 0; }
    std::uint32_t bits() const { return m_bits; }
    // "1,2,3"; empty for the empty set.
    std::string text() const;

    PrivilegeSet operator|(PrivilegeSet other) const { return PrivilegeSet(m_bits | other.m_bits); }
    bool operator==(const PrivilegeSet&) const = default;

private:
    static constexpr std::uint32_t allBits = 0x1F;
    std::uint32_t m_bits = 0;
};

struct Grant {
    std::int64_t groupId = 0;
    PrivilegeSet privileges;
};

// One folder of a chain from the root downwards, with the privilege set of its own (empty: it inherits).
struct FolderLink {
    std::int64_t id = 0;
    std::string name;
    std::vector<Grant> grants;
};

struct Identity {
    bool isAdmin = false;
    std::vector<std::int64_t> groupIds;
};

// What the caller may do in a folder whose parent gives `inherited`: a set of the folder's own replaces what
// it would inherit, even when it gives the caller nothing.
PrivilegeSet privilegesHere(const std::vector<Grant>& own, PrivilegeSet inherited, const Identity& who);

// The caller's privileges in each folder of a chain that begins at the root.
std::vector<PrivilegeSet> privilegesAlong(const std::vector<FolderLink>& chain, const Identity& who);

// The index in the chain at which the path shown to the caller begins: the outermost folder from which on
// everything down to the last is readable, so that no unreadable name shows; the root is left out unless it
// is the last. chain.size() when the last is unreadable.
std::size_t visibleFrom(const std::vector<PrivilegeSet>& privileges);

} // namespace halvane::server
