// Foreign bytes of the local protocol: as a frame on a socket, as a request to the service and as
// an answer to the session. The first byte of the input chooses.

#include "Service.h"

#include <karst/Exceptions.h>
#include <karst/Messages.h>
#include <twine/Errors.h>
#include <twine/Frame.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>

#include <sys/socket.h>
#include <unistd.h>

namespace {

using namespace quorad;
namespace messages = tessa::messages;

// Whoever breaks a promise ends the program where the fuzzer sees it.
void require(bool held) {
    if (!held) {
        std::abort();
    }
}

template <typename Item> class NoItems : public Cursor<Item> {
public:
    bool nextPage(std::vector<Item>& items, std::size_t) override {
        items.emplace_back();
        return ++m_pages < 3;
    }

private:
    int m_pages = 0;
};

// Knows every name and finds next to nothing.
class SmallDirectory : public Directory {
public:
    tessa::ADObject fetch(const std::string&, const std::string& dn,
                          const std::vector<std::string>& attributes, bool) override {
        tessa::ADObject object;
        object.set("_dn", dn);
        for (const std::string& name : attributes) {
            object.set(name, "value");
        }
        return object;
    }
    std::unique_ptr<ObjectCursor> search(const SearchRequest&) override {
        return std::make_unique<NoItems<tessa::ADObject>>();
    }
    std::unique_ptr<UserCursor> users(unsigned) override {
        return std::make_unique<NoItems<tessa::UserRecord>>();
    }
    std::unique_ptr<GroupCursor> groups(unsigned) override {
        return std::make_unique<NoItems<tessa::GroupRecord>>();
    }
    tessa::UserRecord user(const std::string& name) override {
        tessa::UserRecord record;
        record.name = name;
        return record;
    }
    tessa::GroupRecord group(const std::string& name) override {
        TESSA_THROW(tessa::NotFoundException, name);
    }
    void maintain() override {}
};

CurrentBackend& backend() {
    static CurrentBackend current = [] {
        tessa::Logger::get(LOGGER_NAME)->setThreshold(tessa::LOG_FATAL + 1);
        tessa::Logger::get("karst")->setThreshold(tessa::LOG_FATAL + 1);
        auto made = std::make_shared<Backend>();
        made->directory = std::make_shared<SmallDirectory>();
        made->zones =
            std::make_unique<Zones>(*made->directory, "CN=z,DC=x", "host", "/nonexistent/zones");
        return CurrentBackend(std::move(made));
    }();
    return current;
}

// A conversation: the input is cut into frames of the lengths that its bytes say.
void fuzzRequests(std::string_view input) {
    static DirectoryHealth health(tessa::Logger::get(LOGGER_NAME));
    static Reporter reporter(tessa::Logger::get(LOGGER_NAME));
    Service service(backend(), health, reporter, "fuzzer");
    q_request hello{};
    hello.operation = Q_HELLO;
    hello.q_request_u.protocol = QUORAD_PROTOCOL_VERSION;
    service.answer(messages::encode(hello));
    while (!input.empty()) {
        const std::size_t length = static_cast<unsigned char>(input.front());
        input.remove_prefix(1);
        const std::string_view frame = input.substr(0, length);
        input.remove_prefix(frame.size());
        const std::string answer = service.answer(frame);
        messages::Arena arena;
        q_answer decoded{};
        require(answer.size() <= twine::MAX_FRAME);
        require(messages::decode(answer, decoded, arena));
    }
}

void fuzzAnswer(std::string_view input) {
    messages::Arena arena;
    q_answer answer{};
    if (!messages::decode(input, answer, arena)) {
        return;
    }
    // What was understood can be said again, and is understood in the same way.
    const std::string again = messages::encode(answer);
    q_answer second{};
    require(messages::decode(again, second, arena));
    require(messages::encode(second) == again);
    if (answer.status != Q_OK) {
        return;
    }
    const auto& result = answer.q_answer_u.result.q_result_u;
    switch (answer.q_answer_u.result.operation) {
    case Q_FETCH:
        messages::fromMessage(result.object);
        break;
    case Q_SEARCH:
    case Q_SEARCH_NEXT:
        for (u_int at = 0; at < result.page.objects.objects_len; ++at) {
            messages::fromMessage(result.page.objects.objects_val[at]);
        }
        break;
    case Q_USERS_NEXT:
        for (u_int at = 0; at < result.users.users.users_len; ++at) {
            messages::fromMessage(result.users.users.users_val[at]);
        }
        break;
    case Q_GROUPS_NEXT:
        for (u_int at = 0; at < result.groups.groups.groups_len; ++at) {
            messages::fromMessage(result.groups.groups.groups_val[at]);
        }
        break;
    default:
        break;
    }
}

void fuzzFrames(std::string_view input) {
    int ends[2] = {-1, -1};
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
        return;
    }
    const ssize_t sent = ::send(ends[0], input.data(), input.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    ::close(ends[0]);
    std::size_t read = 0;
    try {
        std::string payload;
        while (twine::readFrame(ends[1], payload, twine::Clock::now() + std::chrono::seconds(10))) {
            read += payload.size() + sizeof(std::uint32_t);
        }
        require(sent < 0 || read == static_cast<std::size_t>(sent));
    } catch (const twine::FrameError&) {
        // Cut off, or announced too large: all that there can be, since nobody is waited for.
    }
    ::close(ends[1]);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::string_view input(reinterpret_cast<const char*>(data) + 1, size - 1);
    switch (data[0] % 3) {
    case 0:
        fuzzRequests(input);
        break;
    case 1:
        fuzzAnswer(input);
        break;
    default:
        fuzzFrames(input);
        break;
    }
    return 0;
}
