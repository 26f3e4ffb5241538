// The LDIF reader, with the first byte as the size of the pieces in which it gets the text: it must
// take any bytes apart or refuse them, and what it delivers must come back from its written form.
#include "ldif/Base64.h"
#include "ldif/LdifReader.h"

#include <karst/Exceptions.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using quorad::ldif::LdifReader;
using quorad::ldif::LdifRecord;

LdifReader readerOf(const std::string& text, std::size_t piece, std::size_t& at) {
    return {"input", [&text, piece, &at](char* buffer, std::size_t size) {
                const std::size_t count = std::min({piece, size, text.size() - at});
                std::memcpy(buffer, text.data() + at, count);
                at += count;
                return count;
            }};
}

// Writes the record and reads it again.
void checkRoundTrip(const LdifRecord& record) {
    std::string text = quorad::ldif::attributeLine("dn", record.dn);
    for (std::size_t i = 0; i < record.size(); ++i) {
        text += quorad::ldif::attributeLine(record.name(i), record.value(i));
    }
    std::size_t at = 0;
    LdifReader reader = readerOf(text, text.size(), at);
    LdifRecord again;
    if (!reader.next(again) || again.dn != record.dn || again.size() != record.size()) {
        std::abort();
    }
    for (std::size_t i = 0; i < record.size(); ++i) {
        if (again.name(i) != record.name(i) || again.value(i) != record.value(i)) {
            std::abort();
        }
    }
}

bool isDirective(const LdifRecord& record) {
    const std::string name(record.name(0));
    return name.size() == 10 || name.size() == 7; // "changetype" and "control" mean more there
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    const std::size_t piece = std::size_t{data[0]} + 1;
    const std::string text(data + 1, data + size);
    std::size_t at = 0;
    LdifReader reader = readerOf(text, piece, at);
    LdifRecord record;
    try {
        while (reader.next(record)) {
            if (!isDirective(record)) {
                checkRoundTrip(record);
            }
        }
    } catch (const tessa::BadDataException& e) {
        if (std::string(e.what()).rfind("input:", 0) != 0) {
            std::abort(); // a refusal names the place
        }
    }
    return 0;
}
