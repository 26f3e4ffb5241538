#include "LdifDirectory.h"

#include "DirectoryLoader.h"
#include "LdifCursors.h"

#include <karst/Guid.h>
#include <karst/Text.h>

namespace quorad {

namespace {

using ldif::asking;

constexpr const char* INDEX_FILE = "ldif.db";
constexpr std::string_view GUID_PREFIX = "<guid=";

// The node that a DN or "<GUID=...>" names.
std::int64_t findObject(ldif::IndexReader& reader, const std::string& dn) {
    std::int64_t node = 0;
    if (tessa::equalsIgnoreCase(std::string_view(dn).substr(0, GUID_PREFIX.size()), GUID_PREFIX) &&
        dn.back() == '>') {
        const std::string_view text(dn);
        const tessa::Guid guid = tessa::Guid::fromString(
            text.substr(GUID_PREFIX.size(), text.size() - GUID_PREFIX.size() - 1));
        node = reader.findGuid(guid.bytes());
    } else {
        node = reader.findName(dn);
    }
    if (node == 0) {
        TESSA_THROW(tessa::NotFoundException, "no object '" + dn + "'");
    }
    return node;
}

class LdifDirectory : public Directory {
public:
    LdifDirectory(const std::string& ldifPath, const std::string& stateDirectory, bool discardState)
        : m_loader(ldifPath, stateDirectory + "/" + INDEX_FILE, discardState) {}

    tessa::ADObject fetch(const std::string& domain, const std::string& dn,
                          const std::vector<std::string>& attributes, bool allAttributes) override {
        if (dn.empty()) {
            // Whoever asks for the highest number wants to know of the latest change.
            m_loader.lookIfQuick();
        }
        const auto index = m_loader.index(domain);
        ldif::ObjectMaker maker(attributes, allAttributes);
        return asking(index, [&] {
            const ldif::Index::Lease reader = index->reader();
            maker.setServer(reader->server());
            tessa::ADObject object;
            if (dn.empty()) {
                reader->root(maker, object);
            } else {
                reader->object(findObject(*reader, dn), maker, object);
            }
            return object;
        });
    }

    std::unique_ptr<ObjectCursor> search(const SearchRequest& request) override {
        Filter filter(request.filter);
        const auto index = m_loader.index(request.domain);
        const std::int64_t base =
            asking(index, [&] { return findObject(*index->reader(), request.base); });
        return std::make_unique<ldif::SearchCursor>(index, request, base, std::move(filter));
    }

    std::unique_ptr<UserCursor> users(unsigned /*flags*/) override {
        // Accounts without numbers are none that the records could hold.
        return std::make_unique<ldif::UsersOfIndex>(m_loader.index(""));
    }
    std::unique_ptr<GroupCursor> groups(unsigned flags) override {
        return std::make_unique<ldif::GroupsOfIndex>(m_loader.index(""),
                                                     (flags & tessa::GROUP_MEMBERSHIP) != 0);
    }
    tessa::UserRecord user(const std::string& name) override {
        const auto index = m_loader.index("");
        return asking(index, [&] { return ldif::userOfIndex(*index->reader(), name); });
    }
    tessa::GroupRecord group(const std::string& name) override {
        const auto index = m_loader.index("");
        return asking(index, [&] { return ldif::groupOfIndex(*index->reader(), name); });
    }

    void maintain() override { m_loader.look(); }

private:
    ldif::DirectoryLoader m_loader;
};

} // namespace

std::unique_ptr<Directory> makeLdifDirectory(const std::string& ldifPath,
                                             const std::string& stateDirectory, bool discardState) {
    return std::make_unique<LdifDirectory>(ldifPath, stateDirectory, discardState);
}

} // namespace quorad
