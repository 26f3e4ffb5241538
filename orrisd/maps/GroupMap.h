#pragma once

#include "maps/IntrinsicADNisMap.h"

#include <karst/LocalRpcSession.h>

#include <functional>
#include <string>

namespace nis {

/// The groups of the machine's zone as the maps group.byname and group.bygid. A group whose line
/// would be longer than NIS clients accept is served in pieces.
class GroupMap : public IntrinsicADNisMap {
public:
    static constexpr const char* GROUP_MAP_NAME = "group";
    static constexpr const char* GROUP_BY_GID_MAP_NAME = "group.bygid";
    static constexpr const char* GROUP_BY_NAME_MAP_NAME = "group.byname";
    static constexpr std::size_t LINE_LIMIT = 1024; ///< bytes

    explicit GroupMap(boost::shared_ptr<NisCache> cache);

    /// Reads all groups. A failure leaves the map as it was.
    void initialize(const tessa::Int64& highUSN) override;
    void update(const tessa::Int64& highUSN) override { initialize(highUSN); }
    void rebuild(const tessa::Int64& highUSN) override { initialize(highUSN); }
    bool mustCacheThisMap(const std::string& name) const override;
    void derivedMapRemoved(const std::string& name) override;
    const char* type_name() const override { return "GroupMap"; }

    /// How pieces of a large group are named.
    struct PieceNames {
        std::string suffix;
        std::size_t nameLength; ///< most bytes of a piece's name

        static PieceNames fromConfiguration();
    };
    /// Name and line of one piece (or of the whole group).
    using Sink = std::function<void(const std::string& name, const std::string& line)>;
    /// Renders a group. The line that bears the group's own name comes last, so that it is the one
    /// that answers the group's number.
    static void render(const tessa::GroupRecord& group, const PieceNames& names, const Sink& sink);

private:
    int enumerate(DataHorde& horde);
};

} // namespace nis
