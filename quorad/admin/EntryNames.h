#pragma once

#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace quorad::admin {

/// Chooses the names (cn) of entries: plain, at most 64 characters, unique without regard to case,
/// and the same at every run. A short plain key is its own name; others, and keys that differ in
/// case only, get a part of the key and a digest of the whole.
class EntryNames {
public:
    /// Names that are taken.
    void reserve(std::string_view name);
    /// Keys that are about to be named; those that collide among themselves all get a digest.
    void announce(const std::vector<std::string>& keys);
    /// A free name for a key, which is taken from then on.
    std::string choose(const std::string& key);

    /// Readable part and digest of a key, whatever else there is.
    static std::string withDigest(std::string_view key);
    /// Whether the key can be a name as it stands.
    static bool isPlain(std::string_view key);

private:
    std::set<std::string> m_taken;                      ///< lower-cased
    std::unordered_map<std::string, unsigned> m_folded; ///< lower-cased keys -> how often
};

} // namespace quorad::admin
