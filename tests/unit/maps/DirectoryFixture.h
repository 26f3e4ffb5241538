#pragma once

#include "directory/ADInterface.h"
#include "support/TestDirectory.h"
#include "unit/directory/FakeQuorad.h"
#include "unit/maps/MapsFixture.h"

namespace test {

/// Maps over a directory client whose answers the test sets.
class FakeDirectoryFixture : public MapsFixture {
protected:
    static constexpr const char* MAP_DN = "CN=m,CN=nismaps,CN=zoneA,CN=Zones,DC=example,DC=com";

    FakeDirectoryFixture() {
        m_quorad.set([](auto& state) { state.servers["example.com"] = "dc1"; });
        nis::setADInterface(boost::make_shared<nis::ADInterface>());
    }
    ~FakeDirectoryFixture() override { nis::setADInterface({}); }

    void entries(std::vector<tessa::ADObject> objects,
                 FakeQuorad::Outcome outcome = FakeQuorad::Outcome::FINE,
                 const std::string& onlyFilter = "") {
        m_quorad.set([&](auto& state) {
            state.searches[MAP_DN] = {outcome, std::move(objects), onlyFilter};
            state.filter.clear();
        });
    }

    FakeQuorad m_quorad;
};

/// Maps over the real directory client.
class RealDirectoryFixture : public MapsFixture {
protected:
    explicit RealDirectoryFixture(const std::string& ldif) : m_quorad(ldif) {
        nis::setADInterface(boost::make_shared<nis::ADInterface>());
    }
    ~RealDirectoryFixture() override { nis::setADInterface({}); }

    TestDirectory m_quorad;
};

} // namespace test
