#include "karst/DBStore.h"

#include "DBStoreImpl.h"
#include "karst/Exceptions.h"
#include "karst/Logger.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>
#include <vector>

namespace tessa {

namespace {

constexpr std::size_t READ_AHEAD_RECORDS = 256;

/// The open stores of the process. Its mutex is taken before that of any store.
struct OpenStores {
    Mutex mutex;
    std::vector<DBStoreInterface*> stores KARST_GUARDED_BY(mutex);
};

OpenStores& openStores() {
    // Never destroyed: a store with static storage may outlive any static object.
    static auto* const all = new OpenStores; // NOLINT
    return *all;
}

void enlist(DBStoreInterface* store) {
    OpenStores& all = openStores();
    const Lock lock(all.mutex);
    all.stores.push_back(store);
}

void strikeOff(DBStoreInterface* store) {
    OpenStores& all = openStores();
    const Lock lock(all.mutex);
    std::erase(all.stores, store);
}

} // namespace

DBItem::DBItem(const void* bytes, std::size_t size) : m_length(size) {
    m_data = std::malloc(std::max<std::size_t>(size, 1)); // NOLINT: released with free
    if (m_data == nullptr) {
        throw std::bad_alloc();
    }
    if (size > 0) {
        std::memcpy(m_data, bytes, size);
    }
}

DBItem::DBItem(DBItem&& other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)), m_length(std::exchange(other.m_length, 0)) {}

DBItem& DBItem::operator=(DBItem&& other) noexcept {
    if (this != &other) {
        std::free(m_data); // NOLINT
        m_data = std::exchange(other.m_data, nullptr);
        m_length = std::exchange(other.m_length, 0);
    }
    return *this;
}

DBItem::~DBItem() {
    std::free(m_data); // NOLINT
}

void DBStoreInterface::closeAll() {
    OpenStores& all = openStores();
    const Lock lock(all.mutex);
    for (DBStoreInterface* const store : std::exchange(all.stores, {})) {
        try {
            store->close();
        } catch (const std::exception& e) {
            KARST_LOG(Logger::get("karst"), LOG_WARN, "Closing store %s", e.what());
        }
    }
}

DBStore::DBStore() : m_impl(std::make_unique<Impl>()) {}

DBStore::~DBStore() {
    try {
        DBStore::close(); // waits for a closeAll() under way, which may be at this store
    } catch (const std::exception& e) {
        KARST_LOG(Logger::get("karst"), LOG_WARN, "Closing store %s", e.what());
    }
}

void DBStore::open(const std::string& name, DBMode mode, unsigned permissions) {
    {
        const Lock lock(mutex());
        m_impl->open(name, mode, permissions);
    }
    enlist(this);
}

bool DBStore::isOpen() const {
    const Lock lock(mutex());
    return m_impl->isOpen();
}

void DBStore::store(const DBThing& key, const DBThing& value, bool replace) {
    const Lock lock(mutex());
    m_impl->put(key.view(), value.view(), replace);
}

DBItem DBStore::fetch(const DBThing& key) const {
    DBItem item;
    if (m_impl->recall(key.view(), item)) {
        return item;
    }
    const Lock lock(mutex());
    return m_impl->fetch(key.view(), mutex().depth() == 1);
}

void DBStore::remove(const DBThing& key) {
    const Lock lock(mutex());
    m_impl->remove(key.view());
}

DBItem DBStore::getFirst() const {
    const Lock lock(mutex());
    return m_impl->firstKey();
}

DBItem DBStore::getNext(const DBThing& key) const {
    const Lock lock(mutex());
    return m_impl->keyAfter(key.view());
}

DBStore::Record DBStore::seek(const DBThing& key, bool inclusive) const {
    Record record;
    if (!inclusive && m_impl->recallNext(key.view(), record)) {
        return record;
    }
    const Lock lock(mutex());
    return inclusive ? m_impl->seek(key.view(), true)
                     : m_impl->seekAhead(key.view(), mutex().depth() == 1);
}

std::unique_ptr<DBIterator> DBStore::getIterator() const {
    return std::make_unique<DBIterator>(*this);
}

void DBStore::checkStructure() const {
    const Lock lock(mutex());
    m_impl->verify();
}

void DBStore::close() {
    strikeOff(this);
    const Lock lock(mutex());
    m_impl->close(true);
}

void DBStore::destroy() {
    strikeOff(this);
    const Lock lock(mutex());
    m_impl->destroy();
}

unsigned long DBStore::rollbackCount() const {
    const Lock lock(mutex());
    return m_impl->rollbackCount();
}

DBStore::Batch::Batch(DBStore& store, DBSync sync) : m_store(store) {
    const Lock lock(store.mutex());
    m_opening = store.m_impl->beginBatch(sync);
}

DBStore::Batch::~Batch() {
    const Lock lock(m_store.mutex());
    // A store that was closed meanwhile has committed the batch.
    if (m_done || !m_store.m_impl->isOpen() || m_store.m_impl->opening() != m_opening) {
        return;
    }
    try {
        commit();
    } catch (const std::exception& e) {
        if (!m_store.m_impl->inBatch()) { // otherwise the outer batch tells
            KARST_LOG(Logger::get("karst"), LOG_WARN, "The changes of a batch are lost: %s",
                      e.what());
        }
    }
}

void DBStore::Batch::commit() {
    const Lock lock(m_store.mutex());
    if (!m_done) {
        m_done = true;
        m_store.m_impl->endBatch(m_opening);
    }
}

void DBStore::beforeCommit(std::function<void()> hook) {
    const Lock lock(mutex());
    m_impl->beforeCommit(std::move(hook));
}

DBIterator::DBIterator(const DBStore& store) : m_store(store) {}

bool DBIterator::hasNext() {
    if (m_next == m_ahead.size() && !m_ended) {
        readAhead();
    }
    return m_next < m_ahead.size();
}

DBItem DBIterator::next() {
    if (!hasNext()) {
        return {};
    }
    m_record = std::move(m_ahead[m_next++]);
    return {m_record.value.data(), m_record.value.size()};
}

void DBIterator::readAhead() {
    const Lock lock(m_store.mutex());
    m_ahead = m_store.m_impl->readAhead(m_record.key, !m_started, READ_AHEAD_RECORDS);
    m_next = 0;
    m_started = true;
    m_ended = m_ahead.empty();
}

} // namespace tessa
