#include "yp/YpDescribe.h"

#include "unit/yp/YpTestSupport.h"

#include <string>

namespace {

template <typename Describe, typename... Request>
std::string described(Describe describe, const Request&... request) {
    char buffer[nis::DESCRIPTION_SIZE];
    describe(buffer, sizeof buffer, request...);
    return buffer;
}

test::Text gDomain("company");
test::Text gMap("hosts.byname");
test::Text gKey("alphaBEYOND");
test::Text gPeer("slave");
test::Text gName("callback");

TEST(YpDescribe, procedures_without_arguments) {
    EXPECT_EQ(described(nis::ypproc_null_2_string), "ypNull()");
    EXPECT_EQ(described(nis::ypproc_clear_2_string), "ypClear()");
}

TEST(YpDescribe, procedures_with_a_domain) {
    const nis::domainname domain = gDomain.data();
    EXPECT_EQ(described(nis::ypproc_domain_2_string, domain), "ypIsDomainServed(domain=company)");
    EXPECT_EQ(described(nis::ypproc_domain_nonack_2_string, domain),
              "ypIsDomainServedNoAck(domain=company)");
    EXPECT_EQ(described(nis::ypproc_maplist_2_string, domain), "ypGetMapList(domain=company)");
}

TEST(YpDescribe, a_key_is_printed_with_its_length) {
    const nis::ypreq_key request{gDomain.data(), gMap.data(), {5, gKey.data()}};
    EXPECT_EQ(described(nis::ypproc_match_2_string, request),
              "ypMatch(domain=company, map=hosts.byname, key=alpha)");
    EXPECT_EQ(described(nis::ypproc_next_2_string, request),
              "ypNext(domain=company, map=hosts.byname, key=alpha)");
}

TEST(YpDescribe, a_null_key_is_empty) {
    const nis::ypreq_key request{gDomain.data(), gMap.data(), {5, nullptr}};
    EXPECT_EQ(described(nis::ypproc_match_2_string, request),
              "ypMatch(domain=company, map=hosts.byname, key=)");
}

TEST(YpDescribe, procedures_with_a_map) {
    const nis::ypreq_nokey request{gDomain.data(), gMap.data()};
    EXPECT_EQ(described(nis::ypproc_first_2_string, request),
              "ypFirst(domain=company, map=hosts.byname)");
    EXPECT_EQ(described(nis::ypproc_all_2_string, request),
              "ypGetAll(domain=company, map=hosts.byname)");
    EXPECT_EQ(described(nis::ypproc_master_2_string, request),
              "ypMaster(domain=company, map=hosts.byname)");
    EXPECT_EQ(described(nis::ypproc_order_2_string, request),
              "ypOrder(domain=company, map=hosts.byname)");
}

TEST(YpDescribe, transfers) {
    const nis::ypmap_parms parameters{gDomain.data(), gMap.data(), 4000000000U, gPeer.data()};
    EXPECT_EQ(described(nis::ypproc_xfr_2_string, nis::ypreq_xfr{parameters, 7, 0x40000000, 1023}),
              "ypTransfer(domain=company, map=hosts.byname, order=4000000000, peername=slave, "
              "transid=7, prog=1073741824, port=1023)");
    EXPECT_EQ(described(nis::ypproc_newxfr_2_string,
                        nis::ypreq_newxfr{parameters, 7, 0x40000000, gName.data()}),
              "ypNewTransfer(domain=company, map=hosts.byname, order=4000000000, peername=slave, "
              "transid=7, prog=1073741824, port=callback)");
}

TEST(YpDescribe, a_small_buffer_cuts_the_text) {
    const nis::ypreq_nokey request{gDomain.data(), gMap.data()};
    char buffer[10];
    nis::ypproc_all_2_string(buffer, sizeof buffer, request);
    EXPECT_STREQ(buffer, "ypGetAll(");
}

TEST(YpDescribe, below_debug_level_no_description_is_made) {
    int made = 0;
    nis::logCall([&made](char* buffer, std::size_t, const int&) { ++made, *buffer = '\0'; }, 1);
    EXPECT_EQ(made, 0);
    test::LogCapture log;
    nis::logCall(nis::ypproc_null_2_string);
    EXPECT_NE(log.end().find("Processing ypNull()"), std::string::npos);
}

} // namespace
