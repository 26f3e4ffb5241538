// Records of every classic map: a rule gives keys or refuses the record, and the keys do not depend
// on anything but the record.
#include "common/NisException.h"
#include "maps/RecordRules.h"

#include <cstdint>
#include <cstdlib>
#include <functional>

namespace {

using nis::rules::Keys;
using Rule = std::function<Keys(const std::string& key, std::string& value, unsigned n)>;

const std::vector<Rule>& allRules() {
    namespace rules = nis::rules;
    static const std::vector<Rule> all{
        [](const std::string& key, std::string& value, unsigned n) {
            return rules::fields(key, value, n);
        },
        [](const std::string&, std::string& value, unsigned n) { return rules::hosts(value, n); },
        [](const std::string& key, std::string& value, unsigned n) {
            return rules::services(key, value, n);
        },
        [](const std::string& key, std::string& value, unsigned n) {
            return rules::ethers(key, value, n);
        },
        [](const std::string& key, std::string& value, unsigned) {
            return rules::netmasks(key, value);
        },
        [](const std::string&, std::string& value, unsigned) { return rules::timezone(value); },
        [](const std::string& key, std::string& value, unsigned n) {
            return rules::aliases(key, value, n);
        },
    };
    return all;
}

/// Keys and stored value, or the refusal.
std::string apply(const Rule& rule, const std::string& key, std::string value, unsigned n) {
    try {
        std::string result;
        for (const std::string& found : rule(key, value, n)) {
            result += std::to_string(found.size()) + ":" + found;
        }
        return result + "|" + value;
    } catch (const nis::BadRecord& e) {
        const std::string text = e.what();
        if (!text.starts_with("bad record:")) {
            std::abort();
        }
        return text;
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    // The first line is the key, the rest the value.
    const std::string input(reinterpret_cast<const char*>(data), size);
    const std::size_t end = input.find('\n');
    const std::string key = input.substr(0, end);
    const std::string value = end == std::string::npos ? "" : input.substr(end + 1);
    for (const Rule& rule : allRules()) {
        for (unsigned n = 0; n < 4; ++n) {
            if (apply(rule, key, value, n) != apply(rule, key, value, n)) {
                std::abort();
            }
        }
    }
    return 0;
}
