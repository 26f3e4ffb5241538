#include "yp/WholeMapStream.h"

#include "common/Globals.h"
#include "common/NisException.h"
#include "yp/YpDescribe.h"
#include "yp/YpXdr.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <span>

#include <arpa/inet.h>
#include <pthread.h>

namespace nis {

namespace {

pthread_once_t gMapIteratorKeyOnce = PTHREAD_ONCE_INIT;
pthread_key_t gMapIteratorKey;

extern "C" void DestructMapIteratorAtThreadExit(void* holder) {
    DestructMapIterator(holder);
}

extern "C" void MapIteratorKeyCreate() {
    if (pthread_key_create(&gMapIteratorKey, DestructMapIteratorAtThreadExit) != 0) {
        KARST_LOG(logger, tessa::LOG_FATAL, "No thread-specific slot left for map iterators");
        std::abort();
    }
}

pthread_key_t mapIteratorKey() {
    pthread_once(&gMapIteratorKeyOnce, MapIteratorKeyCreate);
    return gMapIteratorKey;
}

constexpr std::size_t padded(std::size_t size) {
    return (size + BYTES_PER_XDR_UNIT - 1) / BYTES_PER_XDR_UNIT * BYTES_PER_XDR_UNIT;
}

char* putWord(char* place, std::uint32_t value) {
    const std::uint32_t word = htonl(value);
    std::memcpy(place, &word, sizeof word);
    return place + sizeof word;
}

char* putOpaque(char* place, const char* bytes, std::size_t size) {
    place = putWord(place, static_cast<std::uint32_t>(size));
    char* const end = place + padded(size);
    if (size > 0) {
        std::memset(end - BYTES_PER_XDR_UNIT, 0, BYTES_PER_XDR_UNIT); // the last word is filled up
        std::memcpy(place, bytes, size);
    }
    return end;
}

bool fitsReply(const MapIterator::View& entry) {
    return entry.key.size() <= YPMAXREPLY && entry.value.size() <= YPMAXREPLY;
}

std::size_t encodedSize(const MapIterator::View& entry) {
    constexpr std::size_t WORDS = 4 * sizeof(std::uint32_t); // flag, status and two lengths
    return WORDS + padded(entry.key.size()) + padded(entry.value.size());
}

/// Writes flag and entry.
char* putEntry(char* place, const MapIterator::View& entry) {
    place = putWord(place, TRUE);
    place = putWord(place, static_cast<std::uint32_t>(YP_TRUE));
    place = putOpaque(place, entry.value.data(), entry.value.size());
    return putOpaque(place, entry.key.data(), entry.key.size());
}

/// Writes all the entries straight into the stream's buffer.
/// @return false when there is not that much room in one piece, with nothing written
bool encodeInPlace(XDR* xdr, std::span<const MapIterator::View> entries) {
    if (!std::all_of(entries.begin(), entries.end(), fitsReply)) {
        return false;
    }
    std::size_t size = 0;
    for (const MapIterator::View& entry : entries) {
        size += encodedSize(entry);
    }
    void* const room = XDR_INLINE(xdr, static_cast<u_int>(size));
    if (room == nullptr) {
        return false;
    }
    char* place = static_cast<char*>(room);
    for (const MapIterator::View& entry : entries) {
        place = putEntry(place, entry);
    }
    return true;
}

bool encodeInPlace(XDR* xdr, const ypresp_key_val& entry) {
    const MapIterator::View view{{entry.key.keydat_val, entry.key.keydat_len},
                                 {entry.val.valdat_val, entry.val.valdat_len}};
    return entry.stat == YP_TRUE && encodeInPlace(xdr, std::span(&view, 1));
}

/// @return how many of the entries were written, from the first one on
std::size_t encodeWhatFits(XDR* xdr, std::span<const MapIterator::View> entries) {
    if (encodeInPlace(xdr, entries)) {
        return entries.size();
    }
    std::size_t count = 0;
    while (count < entries.size() && encodeInPlace(xdr, entries.subspan(count, 1))) {
        ++count;
    }
    return count;
}

/// Sends the entries that the iterator has in memory and the stream has room for. Where there are
/// no more of these, the general way goes on.
void encodeAhead(XDR* xdr) {
    constexpr std::size_t AT_ONCE = 32;
    const IteratorHolder* holder = GetMapIteratorFromTSS();
    if (holder == nullptr || !*holder || logger->enabled(tessa::LOG_DEBUGGING)) {
        return; // the general way logs each entry
    }
    MapIterator& iterator = **holder;
    std::array<MapIterator::View, AT_ONCE> entries;
    while (const std::size_t shown = iterator.peek(entries)) {
        const std::size_t sent = encodeWhatFits(xdr, std::span(entries).first(shown));
        if (sent > 0) {
            iterator.skipTo(entries[sent - 1]);
        }
        if (sent < shown) {
            return;
        }
    }
}

bool_t encodeStream(XDR* xdr, ypresp_all* response) {
    for (;;) {
        if (response->more == FALSE) {
            return xdr_bool(xdr, &response->more);
        }
        if (!encodeInPlace(xdr, response->val) &&
            (xdr_bool(xdr, &response->more) != TRUE ||
             xdr_ypresp_key_val(xdr, &response->val) != TRUE)) {
            return FALSE;
        }
        if (response->val.stat != YP_TRUE) {
            return TRUE;
        }
        encodeAhead(xdr);
        getNextAll(*response);
    }
}

void freeEntry(ypresp_key_val& entry) {
    std::free(entry.key.keydat_val);
    std::free(entry.val.valdat_val);
    entry = {};
}

void fetchNext(ypresp_all& response) {
    IteratorHolder* holder = GetMapIteratorFromTSS();
    MapEntry entry;
    if (holder != nullptr && *holder) {
        MapIterator& iterator = **holder;
        entry = *++iterator;
    }
    if (entry.key.empty()) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "ypGetAllNext: end of sequence");
        DestructMapIterator(holder);
        response.more = FALSE;
        return;
    }
    KARST_LOG(logger, tessa::LOG_DEBUGGING, "ypGetAllNext: map=%s, key=%s",
              (*holder)->getMapName().c_str(), entry.key.c_str());
    StrCopy(entry, response.val.key, response.val.val);
    response.val.stat = YP_TRUE;
}

void endOnFailure(ypresp_all& response) {
    DestructMapIterator(GetMapIteratorFromTSS());
    response.val.stat = YP_YPERR;
    // Set last, so that the client sees an orderly end whatever the status says.
    response.more = FALSE;
}

void openStream(const NisServer& server, const ypreq_nokey& request, ypresp_all& response) {
    const boost::shared_ptr<MapIterator> iterator = server.getAll(request.domain, request.map);
    const MapEntry first = **iterator;
    if (first.key.empty()) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "ypGetAll: map is empty");
        response.more = FALSE;
        return;
    }
    StrCopy(first, response.val.key, response.val.val);
    PutMapIteratorInTSS(iterator);
}

} // namespace

char* memdup(const char* bytes, std::size_t size) {
    // The allocator may answer a request for nothing with a null pointer, which is no failure.
    auto* copy = static_cast<char*>(std::malloc(size == 0 ? 1 : size));
    if (copy == nullptr) {
        throw std::bad_alloc();
    }
    std::memcpy(copy, bytes, size);
    return copy;
}

void StrCopy(const MapEntry& entry, keydat& key, valdat& value) {
    key.keydat_val = memdup(entry.key.data(), entry.key.size());
    key.keydat_len = static_cast<u_int>(entry.key.size());
    try {
        value.valdat_val = memdup(entry.value.data(), entry.value.size());
        value.valdat_len = static_cast<u_int>(entry.value.size());
    } catch (const std::bad_alloc&) {
        std::free(key.keydat_val);
        key = {};
        throw;
    }
}

IteratorHolder* GetMapIteratorFromTSS() {
    return static_cast<IteratorHolder*>(pthread_getspecific(mapIteratorKey()));
}

void PutMapIteratorInTSS(const boost::shared_ptr<MapIterator>& iterator) {
    IteratorHolder* holder = GetMapIteratorFromTSS();
    if (holder == nullptr) {
        auto created = std::make_unique<IteratorHolder>();
        if (pthread_setspecific(mapIteratorKey(), created.get()) != 0) {
            throw std::bad_alloc();
        }
        holder = created.release(); // the slot owns it, until DestructMapIterator
    }
    *holder = iterator;
}

void DestructMapIterator(void* holder) {
    auto* iterators = static_cast<IteratorHolder*>(holder);
    if (iterators == nullptr) {
        return;
    }
    iterators->reset();
    if (GetMapIteratorFromTSS() != iterators) {
        // The threads library has emptied the slot already: the thread is ending.
        delete iterators;
    }
}

void getNextAll(ypresp_all& response) {
    freeEntry(response.val);
    response.more = TRUE;
    try {
        fetchNext(response);
    } catch (const std::bad_alloc&) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "ypGetAllNext: out of memory");
        endOnFailure(response);
    } catch (NisException& e) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "ypGetAllNext: unexpected exception '%s'",
                  e.msg().c_str());
        endOnFailure(response);
    } catch (const std::exception& e) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "ypGetAllNext: unexpected exception '%s'",
                  e.what());
        endOnFailure(response);
    } catch (...) {
        endOnFailure(response);
    }
}

bool ypproc_all_2_svc(const NisServer& server, const ypreq_nokey& request, ypresp_all& response) {
    logCall(ypproc_all_2_string, request);
    response.more = TRUE;
    response.val.stat = YP_TRUE;
    try {
        openStream(server, request, response);
    } catch (const ZeroPointer& e) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "ypGetAll: Null argument: %s", e.what());
        response.val.stat = YP_BADARGS;
    } catch (const WrongDomain& e) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "ypGetAll: Not our domain: %s", e.what());
        response.val.stat = YP_NODOM;
    } catch (const UnknownMap& e) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "ypGetAll: Unsupported map: %s", e.what());
        response.val.stat = YP_NOMAP;
    } catch (const std::bad_alloc&) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "ypGetAll: out of memory");
        // There is no entry to send; the stream ends as it does when memory runs out later on.
        freeEntry(response.val);
        response.val.stat = YP_TRUE;
        response.more = FALSE;
    } catch (NisException& e) {
        KARST_LOG(logger, tessa::LOG_DEBUGGING, "ypGetAll: unexpected exception '%s'",
                  e.msg().c_str());
        response.val.stat = YP_YPERR;
    } catch (...) {
        response.val.stat = YP_YPERR;
    }
    return true;
}

bool_t xdr_ypresp_all(XDR* xdr, ypresp_all* response) {
    switch (xdr->x_op) {
    case XDR_ENCODE:
        return encodeStream(xdr, response);
    case XDR_DECODE:
        if (xdr_bool(xdr, &response->more) != TRUE) {
            return FALSE;
        }
        return response->more == FALSE ? TRUE : xdr_ypresp_key_val(xdr, &response->val);
    case XDR_FREE:
        return xdr_ypresp_key_val(xdr, &response->val);
    }
    return FALSE;
}

} // namespace nis
