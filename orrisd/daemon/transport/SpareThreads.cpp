#include "daemon/transport/SpareThreads.h"

#include "common/Globals.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace nis {

SpareThreads::SpareThreads(std::function<void()> body, std::size_t limit)
    : m_body(std::move(body)), m_limit(limit) {}

SpareThreads::~SpareThreads() {
    stop();
    join();
}

void SpareThreads::changeActive(int by) {
    m_active += by;
    m_surplus.store(m_active > m_places, std::memory_order_relaxed);
}

void SpareThreads::enter() {
    tessa::Lock lock(m_mutex);
    ++m_places;
    changeActive(1);
}

void SpareThreads::leave() {
    tessa::Lock lock(m_mutex);
    --m_places;
    changeActive(-1);
}

std::size_t SpareThreads::count() const {
    tessa::Lock lock(m_mutex);
    return m_threads.size();
}

std::size_t SpareThreads::stalled() const {
    tessa::Lock lock(m_mutex);
    return m_stalled.size();
}

bool SpareThreads::startSpare() {
    if (m_threads.size() >= m_limit) {
        return false;
    }
    try {
        tessa::Thread thread;
        thread.start("spare-" + std::to_string(m_threads.size()), [this] { m_body(); });
        m_threads.push_back(std::move(thread));
    } catch (const std::exception& e) {
        KARST_LOG(logger, tessa::LOG_WARN, "Starting a spare thread failed: %s", e.what());
        return false;
    }
    return true;
}

/// @return false when there is no thread left to take a place
bool SpareThreads::placeIsCovered() {
    if (m_stopped || m_active >= m_places) {
        return true;
    }
    if (!m_parked.empty()) {
        Parked* spare = m_parked.back();
        m_parked.pop_back();
        spare->called = true;
        spare->wake.notify_one();
    } else if (!startSpare()) {
        return false;
    }
    changeActive(1);
    return true;
}

SpareThreads::Absence::Absence(SpareThreads& spares) : m_spares(spares) {
    tessa::Lock lock(m_spares.m_mutex);
    m_spares.changeActive(-1);
    m_spares.placeIsCovered();
}

SpareThreads::Absence::~Absence() {
    tessa::Lock lock(m_spares.m_mutex);
    m_spares.changeActive(1);
}

SpareThreads::Stall::Stall(SpareThreads& spares, Stalled& stalled) : m_spares(spares) {
    tessa::Lock lock(m_spares.m_mutex);
    auto& all = m_spares.m_stalled;
    m_place = all.insert(all.end(), &stalled);
    if (!m_spares.placeIsCovered() && all.size() > 1) {
        all.front()->abort();
        // Its thread leaves the list a little later; the next one in need must not give up the
        // same reply again.
        all.splice(all.end(), all, all.begin());
    }
}

SpareThreads::Stall::~Stall() {
    tessa::Lock lock(m_spares.m_mutex);
    m_spares.m_stalled.erase(m_place);
}

void SpareThreads::parkIfSurplus(const std::function<void()>& beforeParking) {
    if (!m_surplus.load(std::memory_order_relaxed)) {
        return;
    }
    tessa::Lock lock(m_mutex);
    if (m_stopped || m_active <= m_places) {
        return;
    }
    beforeParking();
    Parked self;
    m_parked.push_back(&self);
    changeActive(-1);
    while (!self.called && !m_stopped) {
        self.wake.wait(m_mutex);
    }
    if (!self.called) {
        m_parked.erase(std::find(m_parked.begin(), m_parked.end(), &self));
        changeActive(1);
    }
}

void SpareThreads::stop() {
    tessa::Lock lock(m_mutex);
    m_stopped = true;
    for (Parked* spare : m_parked) {
        spare->wake.notify_one();
    }
}

void SpareThreads::join() {
    std::vector<tessa::Thread> threads;
    {
        tessa::Lock lock(m_mutex);
        threads.swap(m_threads);
    }
    for (tessa::Thread& thread : threads) {
        thread.join();
    }
}

} // namespace nis
