#include "yp/WholeMapStream.h"

#include "unit/yp/TestServer.h"
#include "unit/yp/YpTestSupport.h"
#include "yp/Dispatcher.h"

#include <gtest/gtest.h>

#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>

namespace {

std::string word(std::uint32_t value) {
    const std::uint32_t net = htonl(value);
    return {reinterpret_cast<const char*>(&net), sizeof net};
}

std::string opaque(const std::string& bytes) {
    return word(static_cast<std::uint32_t>(bytes.size())) + bytes +
           std::string((4 - bytes.size() % 4) % 4, '\0');
}

std::string entry(const std::string& key, const std::string& value) {
    return word(1) + word(1) + opaque(value) + opaque(key);
}

const std::string END = word(0);

std::string errorRecord(int status) {
    return word(1) + word(static_cast<std::uint32_t>(status)) + word(0) + word(0);
}

class WholeMapStream : public testing::Test {
protected:
    WholeMapStream() {
        server.maps["empty"] = {};
        server.maps["one"] = {{"key", "value"}};
        server.maps["three"] = {{"a", "1"}, {"b", std::string("\0\0", 2)}, {"c", ""}};
    }
    ~WholeMapStream() override { EXPECT_EQ(server.iteratorsAlive, 0); }

    /// Bytes of the whole reply, as the dispatcher makes it.
    std::string transfer(const char* map, const char* domain = "company",
                         std::size_t room = 1'000'000) {
        test::Text d(domain);
        test::Text m(map);
        nis::ypresp_all response{};
        EXPECT_TRUE(nis::ypproc_all_2_svc(server, {d.data(), m.data()}, response));
        std::vector<char> buffer(room);
        XDR xdr{};
        xdrmem_create(&xdr, buffer.data(), static_cast<u_int>(room), XDR_ENCODE);
        const bool complete = nis::xdr_ypresp_all(&xdr, &response) == TRUE;
        std::string bytes =
            complete ? std::string(buffer.data(), xdr_getpos(&xdr)) : "does not encode";
        EXPECT_TRUE(
            nis::ypprog_2_freeresult(nullptr, reinterpret_cast<xdrproc_t>(freeAll), &response));
        EXPECT_EQ(server.iteratorsAlive, 0);
        return bytes;
    }

    static bool_t freeAll(XDR* xdr, void* response) {
        return nis::xdr_ypresp_all(xdr, static_cast<nis::ypresp_all*>(response));
    }

    test::TestServer server;
};

TEST_F(WholeMapStream, an_empty_map_is_a_false_flag) {
    test::LogCapture log;
    EXPECT_EQ(transfer("empty"), END);
    EXPECT_NE(log.end().find("ypGetAll: map is empty"), std::string::npos);
}

TEST_F(WholeMapStream, a_map_of_one_entry) {
    test::LogCapture log;
    EXPECT_EQ(transfer("one"), entry("key", "value") + END);
    const std::string text = log.end();
    EXPECT_NE(text.find("Processing ypGetAll(domain=company, map=one)"), std::string::npos);
    EXPECT_NE(text.find("ypGetAllNext: end of sequence"), std::string::npos);
}

TEST_F(WholeMapStream, a_map_of_several_entries) {
    test::LogCapture log;
    EXPECT_EQ(transfer("three"),
              entry("a", "1") + entry("b", std::string("\0\0", 2)) + entry("c", "") + END);
    EXPECT_NE(log.end().find("ypGetAllNext: map=three, key=b"), std::string::npos);
}

TEST_F(WholeMapStream, an_unknown_map_is_one_record) {
    test::LogCapture log;
    EXPECT_EQ(transfer("none"), errorRecord(nis::YP_NOMAP));
    EXPECT_NE(log.end().find("ypGetAll: Unsupported map: none"), std::string::npos);
}

TEST_F(WholeMapStream, failures_at_the_opening) {
    test::LogCapture log;
    EXPECT_EQ(transfer("one", "other"), errorRecord(nis::YP_NODOM));
    server.fail = [] { NIS_THROW(nis::ZeroPointer, "map argument is zero"); };
    EXPECT_EQ(transfer("one"), errorRecord(nis::YP_BADARGS));
    server.fail = [] { NIS_THROW(nis::DatabaseError, "read", "file"); };
    EXPECT_EQ(transfer("one"), errorRecord(nis::YP_YPERR));
    server.fail = [] { throw std::runtime_error("foreign"); };
    EXPECT_EQ(transfer("one"), errorRecord(nis::YP_YPERR));
    const std::string text = log.end();
    EXPECT_NE(text.find("ypGetAll: Not our domain: other"), std::string::npos);
    EXPECT_NE(text.find("ypGetAll: Null argument: map argument is zero"), std::string::npos);
    EXPECT_NE(text.find("ypGetAll: unexpected exception 'DatabaseError:File System Error:read"),
              std::string::npos);
}

TEST_F(WholeMapStream, no_memory_at_the_opening_ends_the_stream) {
    test::LogCapture log;
    server.fail = [] { throw std::bad_alloc(); };
    EXPECT_EQ(transfer("one"), END);
    server.fail = nullptr;
    server.atEntry = [](unsigned) { throw std::bad_alloc(); };
    EXPECT_EQ(transfer("one"), END);
    EXPECT_NE(log.end().find("ypGetAll: out of memory"), std::string::npos);
}

TEST_F(WholeMapStream, no_memory_in_the_middle_ends_the_stream_after_what_was_sent) {
    test::LogCapture log;
    server.atEntry = [](unsigned index) {
        if (index == 2) {
            throw std::bad_alloc();
        }
    };
    EXPECT_EQ(transfer("three"), entry("a", "1") + entry("b", std::string("\0\0", 2)) + END);
    EXPECT_NE(log.end().find("ypGetAllNext: out of memory"), std::string::npos);
}

TEST_F(WholeMapStream, a_failure_in_the_middle_ends_the_stream) {
    test::LogCapture log;
    server.atEntry = [](unsigned index) {
        if (index == 1) {
            NIS_THROW(nis::BadSnapshotFile, "damaged", "file");
        }
    };
    EXPECT_EQ(transfer("three"), entry("a", "1") + END);
    server.atEntry = [](unsigned index) {
        if (index == 1) {
            throw std::runtime_error("foreign");
        }
    };
    EXPECT_EQ(transfer("three"), entry("a", "1") + END);
    server.atEntry = [](unsigned index) {
        if (index == 1) {
            throw 1;
        }
    };
    EXPECT_EQ(transfer("three"), entry("a", "1") + END);
    const std::string text = log.end();
    EXPECT_NE(text.find("ypGetAllNext: unexpected exception 'Bad Snapshot File:"),
              std::string::npos);
    EXPECT_NE(text.find("ypGetAllNext: unexpected exception 'foreign'"), std::string::npos);
}

TEST_F(WholeMapStream, transfers_on_one_thread_each_begin_at_the_first_entry) {
    const std::string first = transfer("three");
    EXPECT_EQ(transfer("three"), first);
    EXPECT_EQ(transfer("three", "company", 30), "does not encode"); // breaks off half-way
    EXPECT_EQ(transfer("three"), first);
}

TEST_F(WholeMapStream, an_entry_larger_than_the_room_left_in_one_piece) {
    const std::string large(50'000, 'v');
    server.maps["large"] = {{"a", large}, {"b", large}};
    EXPECT_EQ(transfer("large"), entry("a", large) + entry("b", large) + END);
}

TEST_F(WholeMapStream, entries_in_memory_are_sent_in_their_order_whatever_room_there_is) {
    std::string expected;
    for (int i = 1000; i < 1200; ++i) {
        const std::size_t size = i % 90 == 0 ? 20'000 : static_cast<std::size_t>(i % 37);
        const std::string key = "key" + std::to_string(i);
        server.maps["many"][key] = std::string(size, 'v');
        expected += entry(key, server.maps["many"][key]);
    }
    expected += END;
    for (const std::size_t inMemory : {0U, 1U, 2U, 31U, 32U, 33U, 1000U}) {
        server.inMemory = inMemory;
        EXPECT_EQ(transfer("many"), expected) << inMemory;
        for (std::size_t room = 0; room < expected.size(); room += room < 9000 ? 44 : 4444) {
            EXPECT_EQ(transfer("many", "company", room), "does not encode") << room;
        }
        EXPECT_EQ(transfer("many", "company", expected.size()), expected) << inMemory;
    }
}

TEST_F(WholeMapStream, decoding_takes_one_record_at_a_time) {
    std::string bytes = entry("key", "value") + END;
    XDR xdr{};
    xdrmem_create(&xdr, bytes.data(), static_cast<u_int>(bytes.size()), XDR_DECODE);
    nis::ypresp_all record{};
    ASSERT_EQ(nis::xdr_ypresp_all(&xdr, &record), TRUE);
    EXPECT_EQ(record.more, TRUE);
    EXPECT_EQ(test::bytes(record.val.key), "key");
    EXPECT_EQ(test::bytes(record.val.val), "value");
    XDR release{};
    release.x_op = XDR_FREE;
    nis::xdr_ypresp_all(&release, &record);
    record = {};
    ASSERT_EQ(nis::xdr_ypresp_all(&xdr, &record), TRUE);
    EXPECT_EQ(record.more, FALSE);
}

TEST_F(WholeMapStream, the_slot_belongs_to_the_thread_and_ends_with_it) {
    std::thread other([this] {
        EXPECT_EQ(nis::GetMapIteratorFromTSS(), nullptr);
        nis::PutMapIteratorInTSS(server.getAll("company", "one"));
        ASSERT_NE(nis::GetMapIteratorFromTSS(), nullptr);
        EXPECT_EQ((*nis::GetMapIteratorFromTSS())->getMapName(), "one");
        nis::PutMapIteratorInTSS(server.getAll("company", "three"));
        EXPECT_EQ(server.iteratorsAlive, 1);
    });
    other.join();
    EXPECT_EQ(server.iteratorsAlive, 0);
}

TEST_F(WholeMapStream, copies_are_exact) {
    nis::keydat key{};
    nis::valdat value{};
    nis::StrCopy({std::string("k\0y", 3), ""}, key, value);
    EXPECT_EQ(test::bytes(key), std::string("k\0y", 3));
    EXPECT_EQ(value.valdat_len, 0U);
    EXPECT_NE(value.valdat_val, nullptr);
    std::free(key.keydat_val);
    std::free(value.valdat_val);
}

} // namespace
