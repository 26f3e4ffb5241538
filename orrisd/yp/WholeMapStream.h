#pragma once

#include "common/MapEntry.h"
#include "common/MapIterator.h"
#include "server/NisServer.h"
#include "yp/YpProtocol.h"

#include <boost/shared_ptr.hpp>

#include <cstddef>

/// Procedure 8: a whole map in one reply, of which never more than one entry is in memory.
///
/// The handler opens an iterator and leaves it in a slot of its thread; the encoder of the reply
/// pulls one entry after the other from there while it writes. The slot is empty again when the
/// result is freed. A thread serves one call at a time, so one slot each is enough.
namespace nis {

/// Handler: opens the map and fetches its first entry.
bool ypproc_all_2_svc(const NisServer& server, const ypreq_nokey& request, ypresp_all& response);

/// Encodes the whole stream, beginning with the entry in the response; decodes one record.
bool_t xdr_ypresp_all(XDR* xdr, ypresp_all* response);

/// Replaces the entry by the next one of this thread's iterator, or ends the stream. Never throws:
/// on failure the stream ends.
void getNextAll(ypresp_all& response);

using IteratorHolder = boost::shared_ptr<MapIterator>;

/// This thread's holder, or null when the thread never stored an iterator.
IteratorHolder* GetMapIteratorFromTSS();
/// Keeps the iterator in this thread's holder; what was there is released.
void PutMapIteratorInTSS(const boost::shared_ptr<MapIterator>& iterator);
/// Releases the iterator in a holder. The threads library calls it when a thread ends; then the
/// holder goes as well.
void DestructMapIterator(void* holder);

/// Copies key and value into the response, as heap memory of their own.
/// @throws std::bad_alloc with both fields of the response empty
void StrCopy(const MapEntry& entry, keydat& key, valdat& value);
/// Copies exactly that many bytes, with no zero behind.
/// @throws std::bad_alloc
char* memdup(const char* bytes, std::size_t size);

} // namespace nis
