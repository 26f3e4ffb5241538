// The filter: any text is a filter or refused, and a filter can be applied to any values. The
// bounds that it states must hold for what it matches.
#include "Filter.h"

#include <karst/Exceptions.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace {

class Subject : public quorad::FilterSubject {
public:
    explicit Subject(std::int64_t usn) : m_usn(std::to_string(usn)) {}

    bool anyValue(std::string_view attribute, const Test& test) const override {
        if (attribute == "usnchanged") {
            return test(m_usn);
        }
        if (attribute == "objectguid") {
            return test(std::string_view("\0\x01(*)\\\xff", 7));
        }
        if (attribute == "cn") {
            return test("Bollard") || test("");
        }
        return attribute == "description" && test("a value of some length * with a star");
    }

private:
    std::string m_usn;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    try {
        const quorad::Filter filter(std::string(data, data + size));
        const auto& range = filter.usnRange();
        for (const std::int64_t usn : {INT64_MIN, INT64_C(-1), INT64_C(0), INT64_C(7), INT64_MAX}) {
            const bool inside = usn >= range.lower && usn <= range.upper;
            const bool matches = filter.matches(Subject(usn));
            if ((matches && !inside) || (range.complete && matches != inside)) {
                std::abort();
            }
        }
    } catch (const tessa::BadDataException&) { // NOLINT: a refusal is an answer
    }
    return 0;
}
