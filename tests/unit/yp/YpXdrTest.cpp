#include "yp/YpXdr.h"

#include "unit/yp/YpTestSupport.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

template <typename Record>
std::string encoded(bool_t (*routine)(XDR*, Record*), Record record, std::size_t room = 4096) {
    std::vector<char> buffer(room);
    XDR xdr{};
    xdrmem_create(&xdr, buffer.data(), static_cast<u_int>(buffer.size()), XDR_ENCODE);
    if (routine(&xdr, &record) != TRUE) {
        return "does not encode";
    }
    return {buffer.data(), xdr_getpos(&xdr)};
}

template <typename Record, bool_t (*ROUTINE)(XDR*, Record*)>
bool decodes(std::string bytes, test::Freed<Record, ROUTINE>& record) {
    XDR xdr{};
    xdrmem_create(&xdr, bytes.data(), static_cast<u_int>(bytes.size()), XDR_DECODE);
    return ROUTINE(&xdr, &*record) == TRUE;
}

std::string word(std::uint32_t value) {
    const std::uint32_t net = htonl(value);
    return {reinterpret_cast<const char*>(&net), sizeof net};
}

std::string opaque(const std::string& bytes) {
    return word(static_cast<std::uint32_t>(bytes.size())) + bytes +
           std::string((4 - bytes.size() % 4) % 4, '\0');
}

TEST(YpXdr, the_value_travels_before_the_key) {
    test::Text key("k");
    test::Text value("value");
    const nis::ypresp_key_val pair{
        nis::YP_TRUE, {key.size(), key.data()}, {value.size(), value.data()}};
    EXPECT_EQ(encoded(nis::xdr_ypresp_key_val, pair), word(1) + opaque("value") + opaque("k"));
}

TEST(YpXdr, statuses_are_signed) {
    EXPECT_EQ(encoded(nis::xdr_ypresp_val, nis::ypresp_val{nis::YP_NOKEY, {0, nullptr}}),
              word(0xfffffffdU) + word(0));
    EXPECT_EQ(encoded(nis::xdr_ypresp_xfr, nis::ypresp_xfr{0, nis::YPXFR_REFUSED}),
              word(0) + word(0xfffffff2U));
    EXPECT_EQ(encoded(nis::xdr_ypresp_order, nis::ypresp_order{nis::YP_TRUE, 0x80000001U}),
              word(1) + word(0x80000001U));
}

TEST(YpXdr, a_master_that_is_an_error_has_an_empty_name) {
    EXPECT_EQ(encoded(nis::xdr_ypresp_master, nis::ypresp_master{nis::YP_NOMAP, nullptr}),
              word(0xffffffffU) + word(0));
}

TEST(YpXdr, requests_decode) {
    test::Freed<nis::ypreq_key, nis::xdr_ypreq_key> request;
    ASSERT_TRUE(
        decodes(opaque("company") + opaque("hosts") + opaque(std::string("a\0b", 3)), request));
    EXPECT_STREQ(request->domain, "company");
    EXPECT_STREQ(request->map, "hosts");
    EXPECT_EQ(test::bytes(request->key), std::string("a\0b", 3));

    test::Freed<nis::ypreq_newxfr, nis::xdr_ypreq_newxfr> transfer;
    ASSERT_TRUE(decodes(opaque("company") + opaque("hosts") + word(5) + opaque("peer") + word(6) +
                            word(7) + opaque("name"),
                        transfer));
    EXPECT_EQ(transfer->map_parms.ordernum, 5U);
    EXPECT_EQ(transfer->transid, 6U);
    EXPECT_EQ(transfer->prog, 7U);
    EXPECT_STREQ(transfer->name, "name");
}

TEST(YpXdr, a_key_of_no_bytes_is_a_null_pointer) {
    test::Freed<nis::ypreq_key, nis::xdr_ypreq_key> request;
    ASSERT_TRUE(decodes(opaque("company") + opaque("hosts") + word(0), request));
    EXPECT_EQ(request->key.keydat_val, nullptr);
}

TEST(YpXdr, what_comes_in_is_bounded) {
    struct Case {
        std::string bytes;
        bool good;
    };
    const std::vector<Case> cases = {
        {opaque(std::string(256, 'd')) + opaque("m") + opaque("k"), true},
        {opaque(std::string(257, 'd')) + opaque("m") + opaque("k"), false},
        {opaque("d") + opaque(std::string(64, 'm')) + opaque("k"), true},
        {opaque("d") + opaque(std::string(65, 'm')) + opaque("k"), false},
        {opaque("d") + opaque("m") + opaque(std::string(1024, 'k')), true},
        {opaque("d") + opaque("m") + opaque(std::string(1025, 'k')), false},
        {word(0xffffffffU) + opaque("m") + opaque("k"), false},
        {opaque("d") + opaque("m") + word(0x7fffffffU), false},
        {opaque("d") + opaque("m") + word(8) + "short", false},
        {opaque("d"), false},
        {"", false},
    };
    for (const Case& example : cases) {
        test::Freed<nis::ypreq_key, nis::xdr_ypreq_key> request;
        EXPECT_EQ(decodes(example.bytes, request), example.good) << example.bytes.size();
    }
}

TEST(YpXdr, long_keys_and_values_go_out) {
    test::Text value(std::string(60 * 1024, 'v'));
    test::Text key(std::string(2000, 'k'));
    const nis::ypresp_key_val pair{
        nis::YP_TRUE, {key.size(), key.data()}, {value.size(), value.data()}};
    EXPECT_EQ(encoded(nis::xdr_ypresp_key_val, pair, 100'000).size(), 4 + 4 + 61440 + 4 + 2000U);
    EXPECT_EQ(encoded(nis::xdr_ypresp_key_val, pair, 8800), "does not encode");
}

TEST(YpXdr, a_map_list_of_any_length) {
    constexpr unsigned COUNT = 100'000;
    std::string bytes = word(1);
    for (unsigned i = 0; i < COUNT; ++i) {
        bytes += word(1) + opaque("map" + std::to_string(i));
    }
    bytes += word(0);
    test::Freed<nis::ypresp_maplist, nis::xdr_ypresp_maplist> response;
    ASSERT_TRUE(decodes(bytes, response));
    EXPECT_EQ(encoded(nis::xdr_ypresp_maplist, *response, bytes.size()), bytes);
    EXPECT_EQ(encoded(nis::xdr_ypresp_maplist, *response, bytes.size() - 4), "does not encode");
}

TEST(YpXdr, a_map_list_that_breaks_off) {
    test::Freed<nis::ypresp_maplist, nis::xdr_ypresp_maplist> response;
    EXPECT_FALSE(decodes(word(1) + word(1) + opaque("hosts") + word(1), response));
}

TEST(YpXdr, binder_records) {
    nis::ypbind_resp response{};
    response.ypbind_status = nis::YPBIND_FAIL_VAL;
    response.ypbind_resp_u.ypbind_error = 2;
    EXPECT_EQ(encoded(nis::xdr_ypbind_resp, response), word(2) + word(2));
    response.ypbind_status = nis::YPBIND_SUCC_VAL;
    std::memcpy(response.ypbind_resp_u.ypbind_bindinfo.ypbind_binding_addr, "\x7f\0\0\1", 4);
    std::memcpy(response.ypbind_resp_u.ypbind_bindinfo.ypbind_binding_port, "\2\1", 2);
    EXPECT_EQ(encoded(nis::xdr_ypbind_resp, response),
              word(1) + std::string("\x7f\0\0\1\2\1\0\0", 8));
    response.ypbind_status = static_cast<nis::ypbind_resptype>(3);
    EXPECT_EQ(encoded(nis::xdr_ypbind_resp, response), "does not encode");
}

} // namespace
