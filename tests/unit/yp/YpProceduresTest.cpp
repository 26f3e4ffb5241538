#include "yp/YpProcedures.h"

#include "unit/yp/TestServer.h"
#include "unit/yp/YpTestSupport.h"
#include "yp/YpXdr.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using nis::ypstat;

class YpProcedures : public testing::Test {
protected:
    YpProcedures() {
        server.maps["hosts"] = {
            {"alpha", "10.0.0.1 alpha"}, {"beta", std::string("v\0w", 3)}, {"gamma", ""}};
        server.maps["empty"] = {};
    }

    ypstat match(const char* domain, const char* map, const char* key, std::string* value,
                 bool nullKey = false) {
        test::Text d(domain);
        test::Text m(map);
        test::Text k(key);
        test::Freed<nis::ypresp_val, nis::xdr_ypresp_val> response;
        const nis::ypreq_key request{d.data(), m.data(), {k.size(), nullKey ? nullptr : k.data()}};
        EXPECT_TRUE(nis::ypproc_match_2_svc(server, request, *response));
        if (value != nullptr) {
            *value = test::bytes(response->val);
        }
        return response->stat;
    }

    struct Pair {
        ypstat stat;
        std::string key;
        std::string value;
    };

    Pair first(const char* domain, const char* map) {
        test::Text d(domain);
        test::Text m(map);
        test::Freed<nis::ypresp_key_val, nis::xdr_ypresp_key_val> response;
        EXPECT_TRUE(nis::ypproc_first_2_svc(server, {d.data(), m.data()}, *response));
        return {response->stat, test::bytes(response->key), test::bytes(response->val)};
    }

    Pair next(const char* map, const char* key) {
        test::Text d("company");
        test::Text m(map);
        test::Text k(key);
        test::Freed<nis::ypresp_key_val, nis::xdr_ypresp_key_val> response;
        const nis::ypreq_key request{
            d.data(), m.data(), {k.size(), k.size() == 0 ? nullptr : k.data()}};
        EXPECT_TRUE(nis::ypproc_next_2_svc(server, request, *response));
        return {response->stat, test::bytes(response->key), test::bytes(response->val)};
    }

    ypstat master(const char* map, std::string* name = nullptr) {
        test::Text d("company");
        test::Text m(map);
        test::Freed<nis::ypresp_master, nis::xdr_ypresp_master> response;
        EXPECT_TRUE(nis::ypproc_master_2_svc(server, {d.data(), m.data()}, *response));
        if (name != nullptr && response->peer != nullptr) {
            *name = response->peer;
        }
        return response->stat;
    }

    ypstat order(const char* map, u_int* number = nullptr) {
        test::Text d("company");
        test::Text m(map);
        nis::ypresp_order response{};
        EXPECT_TRUE(nis::ypproc_order_2_svc(server, {d.data(), m.data()}, response));
        if (number != nullptr) {
            *number = response.ordernum;
        }
        return response.stat;
    }

    ypstat maplist(const char* domain, std::vector<std::string>* names = nullptr) {
        test::Text d(domain);
        test::Freed<nis::ypresp_maplist, nis::xdr_ypresp_maplist> response;
        EXPECT_TRUE(nis::ypproc_maplist_2_svc(server, d.data(), *response));
        for (const nis::ypmaplist* node = response->maps; names != nullptr && node != nullptr;
             node = node->next) {
            names->push_back(node->map);
        }
        return response->stat;
    }

    test::TestServer server;
};

TEST_F(YpProcedures, match_answers_the_value) {
    std::string value;
    EXPECT_EQ(match("company", "hosts", "alpha", &value), nis::YP_TRUE);
    EXPECT_EQ(value, "10.0.0.1 alpha");
    EXPECT_EQ(match("company", "hosts", "beta", &value), nis::YP_TRUE);
    EXPECT_EQ(value, std::string("v\0w", 3));
    EXPECT_EQ(match("company", "hosts", "gamma", &value), nis::YP_TRUE);
    EXPECT_EQ(value, "");
}

TEST_F(YpProcedures, match_with_a_null_key_is_bad_arguments) {
    test::LogCapture log;
    EXPECT_EQ(match("company", "hosts", "alpha", nullptr, true), nis::YP_BADARGS);
    EXPECT_NE(log.end().find("ypMatch: Null argument: key argument is zero"), std::string::npos);
}

TEST_F(YpProcedures, match_with_an_unknown_key) {
    test::LogCapture log;
    EXPECT_EQ(match("company", "hosts", "delta", nullptr), nis::YP_NOKEY);
    const std::string text = log.end();
    EXPECT_NE(text.find("Processing ypMatch(domain=company, map=hosts, key=delta)"),
              std::string::npos);
    EXPECT_NE(text.find("ypMatch: don't have this key: delta"), std::string::npos);
}

TEST_F(YpProcedures, match_in_a_foreign_domain_or_unknown_map) {
    test::LogCapture log;
    EXPECT_EQ(match("Company", "hosts", "alpha", nullptr), nis::YP_NODOM);
    EXPECT_EQ(match("company", "nohosts", "alpha", nullptr), nis::YP_NOMAP);
    const std::string text = log.end();
    EXPECT_NE(text.find("ypMatch: Not our domain: Company"), std::string::npos);
    EXPECT_NE(text.find("ypMatch: Unsupported map: nohosts"), std::string::npos);
}

TEST_F(YpProcedures, null_pointers_are_bad_arguments) {
    test::Freed<nis::ypresp_key_val, nis::xdr_ypresp_key_val> response;
    EXPECT_TRUE(nis::ypproc_first_2_svc(server, {nullptr, nullptr}, *response));
    EXPECT_EQ(response->stat, nis::YP_BADARGS);
}

TEST_F(YpProcedures, first_answers_the_first_pair) {
    test::LogCapture log;
    const Pair pair = first("company", "hosts");
    EXPECT_EQ(pair.stat, nis::YP_TRUE);
    EXPECT_EQ(pair.key, "alpha");
    EXPECT_EQ(pair.value, "10.0.0.1 alpha");
    EXPECT_NE(log.end().find("ypFirst: got pair (alpha, 10.0.0.1 alpha)"), std::string::npos);
}

TEST_F(YpProcedures, first_of_an_empty_map_is_no_more) {
    test::LogCapture log;
    const Pair pair = first("company", "empty");
    EXPECT_EQ(pair.stat, nis::YP_NOMORE);
    EXPECT_EQ(pair.key, "");
    EXPECT_NE(log.end().find("ypFirst: map is empty"), std::string::npos);
}

TEST_F(YpProcedures, next_walks_to_the_end) {
    test::LogCapture log;
    EXPECT_EQ(next("hosts", "alpha").key, "beta");
    EXPECT_EQ(next("hosts", "beta").key, "gamma");
    EXPECT_EQ(next("hosts", "gamma").stat, nis::YP_NOMORE);
    EXPECT_NE(log.end().find("ypNext: map is empty"), std::string::npos);
}

TEST_F(YpProcedures, next_after_an_unknown_or_null_key) {
    test::LogCapture log;
    EXPECT_EQ(next("hosts", "delta").stat, nis::YP_NOKEY);
    EXPECT_EQ(next("hosts", "").stat, nis::YP_BADARGS);
    EXPECT_EQ(next("nohosts", "alpha").stat, nis::YP_NOMAP);
    EXPECT_NE(log.end().find("ypNext: don't have this key: delta"), std::string::npos);
}

TEST_F(YpProcedures, an_unknown_key_where_there_is_none_is_unexpected) {
    server.fail = [] { NIS_THROW(nis::UnknownKey, "why"); };
    test::LogCapture log;
    EXPECT_EQ(first("company", "hosts").stat, nis::YP_YPERR);
    EXPECT_NE(log.end().find("ypFirst: unexpected exception 'Unknown Key:Bad Argument:why from "),
              std::string::npos);
}

TEST_F(YpProcedures, master_and_order) {
    std::string name;
    EXPECT_EQ(master("hosts", &name), nis::YP_TRUE);
    EXPECT_EQ(name, "master.example.com");
    EXPECT_EQ(master("nohosts"), nis::YP_NOMAP);
    test::LogCapture log;
    u_int number = 0;
    EXPECT_EQ(order("hosts", &number), nis::YP_TRUE);
    EXPECT_EQ(number, 4'000'000'000U);
    EXPECT_EQ(order("nohosts"), nis::YP_NOMAP);
    const std::string text = log.end();
    EXPECT_NE(text.find("Order: map hosts, -294967296"), std::string::npos);
    EXPECT_NE(text.find("ypOrder: Unsupported map: nohosts"), std::string::npos);
}

TEST_F(YpProcedures, maplist_in_the_servers_order) {
    std::vector<std::string> names;
    EXPECT_EQ(maplist("company", &names), nis::YP_TRUE);
    EXPECT_EQ(names, (std::vector<std::string>{"empty", "hosts"}));
}

TEST_F(YpProcedures, maplist_failures_carry_the_prefix_of_order) {
    test::LogCapture log;
    EXPECT_EQ(maplist("other"), nis::YP_NODOM);
    EXPECT_NE(log.end().find("ypOrder: Not our domain: other"), std::string::npos);
}

TEST_F(YpProcedures, maplist_leaves_out_names_that_no_client_takes) {
    server.maps[std::string(64, 'a')];
    server.maps[std::string(65, 'b')];
    std::vector<std::string> names;
    EXPECT_EQ(maplist("company", &names), nis::YP_TRUE);
    EXPECT_EQ(names, (std::vector<std::string>{std::string(64, 'a'), "empty", "hosts"}));
}

TEST_F(YpProcedures, domain_answers_yes_or_no) {
    test::Text own("company");
    test::Text other("other");
    bool_t served = FALSE;
    EXPECT_TRUE(nis::ypproc_domain_2_svc(server, own.data(), served));
    EXPECT_EQ(served, TRUE);
    EXPECT_TRUE(nis::ypproc_domain_2_svc(server, other.data(), served));
    EXPECT_EQ(served, FALSE);
}

TEST_F(YpProcedures, domain_nonack_says_yes_or_nothing) {
    test::Text own("company");
    test::Text other("other");
    bool_t served = FALSE;
    EXPECT_TRUE(nis::ypproc_domain_nonack_2_svc(server, own.data(), served));
    EXPECT_EQ(served, TRUE);
    EXPECT_FALSE(nis::ypproc_domain_nonack_2_svc(server, other.data(), served));
}

TEST_F(YpProcedures, domain_failures_are_no) {
    test::Text own("company");
    bool_t served = TRUE;
    test::LogCapture log;
    EXPECT_TRUE(nis::ypproc_domain_2_svc(server, nullptr, served));
    EXPECT_EQ(served, FALSE);
    EXPECT_FALSE(nis::ypproc_domain_nonack_2_svc(server, nullptr, served));
    server.fail = [] { throw std::bad_alloc(); };
    EXPECT_TRUE(nis::ypproc_domain_2_svc(server, own.data(), served));
    EXPECT_FALSE(nis::ypproc_domain_nonack_2_svc(server, own.data(), served));
    server.fail = [] { throw std::runtime_error("odd"); };
    EXPECT_TRUE(nis::ypproc_domain_2_svc(server, own.data(), served));
    EXPECT_FALSE(nis::ypproc_domain_nonack_2_svc(server, own.data(), served));
    server.fail = [] { throw 1; };
    EXPECT_TRUE(nis::ypproc_domain_2_svc(server, own.data(), served));
    EXPECT_EQ(served, FALSE);
    const std::string text = log.end();
    for (const char* prefix : {"ypIsDomainServed: ", "ypIsDomainServedNoAck: "}) {
        for (const char* message :
             {"Null domain name", "out of memory", "unexpected exception 'odd'"}) {
            EXPECT_NE(text.find(std::string(prefix) + message), std::string::npos)
                << prefix << message;
        }
    }
}

TEST_F(YpProcedures, transfers_are_refused_with_id_zero) {
    test::Text domain("company");
    test::Text map("hosts");
    test::Text peer("slave");
    const nis::ypmap_parms parameters{domain.data(), map.data(), 1, peer.data()};
    nis::ypresp_xfr response{99, nis::YPXFR_SUCC};
    EXPECT_TRUE(nis::ypproc_xfr_2_svc({parameters, 99, 0x40000000, 1}, response));
    EXPECT_EQ(response.transid, 0U);
    EXPECT_EQ(response.xfrstat, -14);
    response = {99, nis::YPXFR_SUCC};
    EXPECT_TRUE(nis::ypproc_newxfr_2_svc({parameters, 99, 0x40000000, peer.data()}, response));
    EXPECT_EQ(response.transid, 0U);
    EXPECT_EQ(response.xfrstat, -14);
}

TEST_F(YpProcedures, null_and_clear_reply_with_nothing) {
    test::LogCapture log;
    EXPECT_TRUE(nis::ypproc_null_2_svc());
    EXPECT_TRUE(nis::ypproc_clear_2_svc());
    const std::string text = log.end();
    EXPECT_NE(text.find("Processing ypNull()"), std::string::npos);
    EXPECT_NE(text.find("Processing ypClear()"), std::string::npos);
}

/// What is thrown, the status that answers it, and the log text behind the prefix.
struct Failure {
    const char* name;
    std::function<void()> raise;
    ypstat stat;
    const char* log;
};

class YpFailures : public YpProcedures, public testing::WithParamInterface<Failure> {};

TEST_P(YpFailures, every_procedure_answers_with_the_status) {
    server.fail = GetParam().raise;
    test::LogCapture log;
    EXPECT_EQ(match("company", "hosts", "alpha", nullptr), GetParam().stat);
    EXPECT_EQ(first("company", "hosts").stat, GetParam().stat);
    EXPECT_EQ(next("hosts", "alpha").stat, GetParam().stat);
    EXPECT_EQ(master("hosts"), GetParam().stat);
    EXPECT_EQ(order("hosts"), GetParam().stat);
    EXPECT_EQ(maplist("company"), GetParam().stat);
    const std::string text = log.end();
    for (const char* prefix : {"ypMatch: ", "ypFirst: ", "ypNext: ", "ypMaster: ", "ypOrder: "}) {
        if (GetParam().log == nullptr) {
            EXPECT_EQ(text.find(prefix), std::string::npos) << text;
        } else {
            EXPECT_NE(text.find(std::string(prefix) + GetParam().log), std::string::npos) << text;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, YpFailures,
    testing::Values(
        Failure{"ZeroPointer", [] { NIS_THROW(nis::ZeroPointer, "map argument is zero"); },
                nis::YP_BADARGS, "Null argument: map argument is zero"},
        Failure{"WrongDomain", [] { NIS_THROW(nis::WrongDomain, "other"); }, nis::YP_NODOM,
                "Not our domain: other"},
        Failure{"UnknownMap", [] { NIS_THROW(nis::UnknownMap, "No maps present"); }, nis::YP_NOMAP,
                "Unsupported map: No maps present"},
        Failure{"OutOfMemory", [] { throw std::bad_alloc(); }, nis::YP_FALSE, "out of memory"},
        Failure{"DatabaseError", [] { NIS_THROW(nis::DatabaseError, "read", "file"); },
                nis::YP_YPERR, "unexpected exception 'DatabaseError:File System Error:read from "},
        Failure{"BadArgument", [] { NIS_THROW(nis::BadArgument, "odd"); }, nis::YP_YPERR,
                "unexpected exception 'Bad Argument:odd from "},
        Failure{"Foreign", [] { throw std::runtime_error("foreign"); }, nis::YP_YPERR, nullptr},
        Failure{"NoException", [] { throw 1; }, nis::YP_YPERR, nullptr}),
    [](const auto& failure) { return failure.param.name; });

} // namespace
