#pragma once

#include <karst/Messages.h>
#include <twine/Server.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include <unistd.h>

namespace tessa::testing {

/// A directory client daemon that answers as a test wants: raw frames, right or wrong. Requests
/// that the script does not answer (nullptr script, or a HELLO) are answered in the ordinary way.
class ScriptedDaemon {
public:
    /// Gets the decoded request and gives the answer's frame; throwing ends the connection.
    using Script = std::function<std::string(const q_request&)>;

    ScriptedDaemon() {
        char pattern[] = "/tmp/session-test-XXXXXX";
        const char* made = ::mkdtemp(pattern);
        m_folder = made == nullptr ? std::string() : made;
        m_socket = m_folder + "/daemon";
    }
    /// At a given place instead of one of its own.
    explicit ScriptedDaemon(std::string socket) : m_socket(std::move(socket)) {}
    ~ScriptedDaemon() {
        stop();
        if (!m_folder.empty()) {
            ::rmdir(m_folder.c_str());
        }
    }
    ScriptedDaemon(const ScriptedDaemon&) = delete;
    ScriptedDaemon& operator=(const ScriptedDaemon&) = delete;

    const std::string& socket() const { return m_socket; }

    void start(Script script, bool answerHello = true) {
        stop();
        twine::ServerOptions options;
        options.socketPath = socket();
        options.converse = [this, script = std::move(script), answerHello](const twine::Peer&) {
            ++m_connections;
            return std::make_unique<Talk>(*this, script, answerHello);
        };
        m_server = std::make_unique<twine::Server>(std::move(options));
        m_server->start();
    }
    void stop() { m_server.reset(); }

    unsigned connections() const { return m_connections; }
    /// Operations asked for, in order, without HELLO.
    std::vector<unsigned> operations() const {
        const std::lock_guard lock(m_mutex);
        return m_operations;
    }

    // Answers.
    static q_answer ok(const q_request& request) {
        q_answer answer{};
        answer.status = Q_OK;
        answer.q_answer_u.result = q_result{};
        answer.q_answer_u.result.operation = request.operation;
        return answer;
    }
    static std::string done(const q_request& request) { return messages::encode(ok(request)); }
    static std::string failure(unsigned status, const std::string& text) {
        q_answer answer{};
        answer.status = status;
        answer.q_answer_u.failure.message = messages::bytes(text);
        return messages::encode(answer);
    }
    static std::string setting(const q_request& request, const std::string& value) {
        q_answer answer = ok(request);
        answer.q_answer_u.result.q_result_u.setting = messages::bytes(value);
        return messages::encode(answer);
    }
    /// A page of objects that have one attribute "cn" each.
    static std::string page(const q_request& request, unsigned cursor,
                            const std::vector<std::string>& names) {
        messages::Arena arena;
        std::vector<ADObject> objects(names.size());
        q_page result{};
        result.cursor = cursor;
        result.objects.objects_len = static_cast<u_int>(names.size());
        result.objects.objects_val = arena.array<q_object>(names.size());
        for (std::size_t at = 0; at < names.size(); ++at) {
            objects[at].set("cn", names[at]);
            result.objects.objects_val[at] = messages::toMessage(objects[at], arena);
        }
        q_answer answer = ok(request);
        answer.q_answer_u.result.q_result_u.page = result; // the same as next_page
        return messages::encode(answer);
    }
    static std::string users(const q_request& request, bool more,
                             const std::vector<std::string>& names) {
        messages::Arena arena;
        q_user_page result{};
        result.more = more ? TRUE : FALSE;
        result.users.users_len = static_cast<u_int>(names.size());
        result.users.users_val = arena.array<q_user>(names.size());
        for (std::size_t at = 0; at < names.size(); ++at) {
            result.users.users_val[at].name = messages::bytes(names[at]);
        }
        q_answer answer = ok(request);
        answer.q_answer_u.result.q_result_u.users = result;
        return messages::encode(answer);
    }
    struct GroupPiece {
        std::string name;
        std::vector<std::string> members;
        bool continues = false;
    };
    static std::string groups(const q_request& request, bool more,
                              const std::vector<GroupPiece>& pieces) {
        messages::Arena arena;
        q_group_page result{};
        result.more = more ? TRUE : FALSE;
        result.groups.groups_len = static_cast<u_int>(pieces.size());
        result.groups.groups_val = arena.array<q_group>(pieces.size());
        for (std::size_t at = 0; at < pieces.size(); ++at) {
            q_group& group = result.groups.groups_val[at];
            group.name = messages::bytes(pieces[at].name);
            group.gid = 7;
            group.continues = pieces[at].continues ? TRUE : FALSE;
            group.members.members_len = static_cast<u_int>(pieces[at].members.size());
            group.members.members_val = arena.array<q_bytes>(pieces[at].members.size());
            for (std::size_t member = 0; member < pieces[at].members.size(); ++member) {
                group.members.members_val[member] = messages::bytes(pieces[at].members[member]);
            }
        }
        q_answer answer = ok(request);
        answer.q_answer_u.result.q_result_u.groups = result;
        return messages::encode(answer);
    }

private:
    class Talk : public twine::Conversation {
    public:
        Talk(ScriptedDaemon& daemon, Script script, bool answerHello)
            : m_daemon(daemon), m_script(std::move(script)), m_answerHello(answerHello) {}
        std::string answer(std::string_view frame) override {
            messages::Arena arena;
            q_request request{};
            if (!messages::decode(frame, request, arena)) {
                return failure(Q_BAD_REQUEST, "malformed");
            }
            if (request.operation == Q_HELLO && m_answerHello) {
                q_answer answer = ok(request);
                answer.q_answer_u.result.q_result_u.protocol = QUORAD_PROTOCOL_VERSION;
                return messages::encode(answer);
            }
            if (request.operation != Q_HELLO) {
                const std::lock_guard lock(m_daemon.m_mutex);
                m_daemon.m_operations.push_back(request.operation);
            }
            return m_script(request);
        }

    private:
        ScriptedDaemon& m_daemon;
        const Script m_script;
        const bool m_answerHello;
    };

    std::string m_folder;
    std::string m_socket;
    std::atomic<unsigned> m_connections{0};
    mutable std::mutex m_mutex;
    std::vector<unsigned> m_operations;
    std::unique_ptr<twine::Server> m_server;
};

} // namespace tessa::testing
