#pragma once

#include "MemoryDirectory.h"
#include "Service.h"

#include <karst/LocalRpcSession.h>
#include <twine/Frame.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

#include <unistd.h>

namespace quorad::testing {

using tessa::ADObject;
using tessa::LocalRpcSession;
namespace messages = tessa::messages;

inline constexpr const char* ZONE = "CN=zoneA,CN=Zones,DC=example,DC=com";

// An answer with what its views refer to.
struct Taken {
    std::string frame;
    messages::Arena arena;
    q_answer answer{};
    auto& result() { return answer.q_answer_u.result.q_result_u; }
    std::string failure() { return messages::text(answer.q_answer_u.failure.message); }
};

class ServiceTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/service-test-XXXXXX";
        m_folder = ::mkdtemp(pattern);
        m_directory = std::make_shared<MemoryDirectory>();
        auto backend = std::make_shared<Backend>();
        backend->directory = m_directory;
        backend->zones = std::make_unique<Zones>(*m_directory, ZONE, "host1", m_folder + "/zones");
        m_backend.set(std::move(backend));
        m_service = std::make_unique<Service>(m_backend, m_health, m_reporter, "the test");
    }
    void TearDown() override {
        m_service.reset();
        m_backend.set(nullptr);
        EXPECT_EQ(0, m_directory->openCursors); // nothing stays open
        ::unlink((m_folder + "/zones").c_str());
        ::rmdir(m_folder.c_str());
    }

    static q_request requestFor(q_operation operation) {
        q_request request{};
        request.operation = operation;
        return request;
    }
    std::unique_ptr<Taken> sendRaw(const std::string& frame) {
        auto taken = std::make_unique<Taken>();
        taken->frame = m_service->answer(frame);
        EXPECT_LE(taken->frame.size(), twine::MAX_FRAME);
        EXPECT_TRUE(messages::decode(taken->frame, taken->answer, taken->arena));
        return taken;
    }
    std::unique_ptr<Taken> send(const q_request& request) {
        return sendRaw(messages::encode(request));
    }
    std::unique_ptr<Taken> send(q_operation operation) { return send(requestFor(operation)); }
    void greet() {
        q_request request = requestFor(Q_HELLO);
        request.q_request_u.protocol = QUORAD_PROTOCOL_VERSION;
        ASSERT_EQ(Q_OK, send(request)->answer.status);
    }
    std::unique_ptr<Taken> search(int scope = tessa::SCOPE_ONE_LEVEL,
                                  const std::string& filter = "(a=b)") {
        q_request request = requestFor(Q_SEARCH);
        q_search wanted{};
        wanted.filter = messages::bytes(filter);
        wanted.scope = scope;
        request.q_request_u.search = wanted;
        return send(request);
    }
    std::unique_ptr<Taken> next(unsigned cursor) {
        q_request request = requestFor(Q_SEARCH_NEXT);
        request.q_request_u.next_cursor = cursor;
        return send(request);
    }
    void addObjects(std::size_t count, std::size_t valueSize = 10) {
        for (std::size_t number = 0; number < count; ++number) {
            ADObject object;
            object.set("cn", std::to_string(number));
            object.set("description", std::string(valueSize, 'v'));
            m_directory->objects.push_back(std::move(object));
        }
    }

    std::string m_folder;
    std::shared_ptr<MemoryDirectory> m_directory;
    CurrentBackend m_backend{nullptr};
    DirectoryHealth m_health{tessa::Logger::get(LOGGER_NAME)};
    Reporter m_reporter{tessa::Logger::get(LOGGER_NAME)};
    std::unique_ptr<Service> m_service;
};

class AccountsOfServiceTest : public ServiceTest {
protected:
    void SetUp() override {
        ServiceTest::SetUp();
        greet();
    }
    void addUsers(std::size_t count) {
        for (std::size_t number = 0; number < count; ++number) {
            tessa::UserRecord user;
            user.name = "u" + std::to_string(number);
            user.uid = static_cast<std::uint32_t>(number);
            m_directory->userRecords.push_back(std::move(user));
        }
    }
    void addGroup(const std::string& name, std::size_t members, std::size_t nameSize = 8) {
        tessa::GroupRecord group;
        group.name = name;
        for (std::size_t number = 0; number < members; ++number) {
            std::string member = std::to_string(number);
            member.resize(std::max(nameSize, member.size()), '.');
            group.members.push_back(std::move(member));
        }
        m_directory->groupRecords.push_back(std::move(group));
    }
};

} // namespace quorad::testing
