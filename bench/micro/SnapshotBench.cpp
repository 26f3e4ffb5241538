#include "store/CacheSnapshot.h"
#include "support/TempFolder.h"

#include <benchmark/benchmark.h>
#include <boost/make_shared.hpp>

#include <array>
#include <cstddef>
#include <filesystem>
#include <string>

namespace {

/// A map of numbered entries that exists nowhere.
class NumberedMap : public nis::SnapshotSource {
public:
    explicit NumberedMap(unsigned entries) : m_entries(entries) {}
    std::string getName() const override { return "bench"; }
    tessa::ReaderWriterLock& getReaderWriterLock() const override { return m_lock; }
    nis::MapEntry getFirst() const override { return at(0); }
    nis::MapEntry getNext(const std::string& key) const override {
        return at(static_cast<unsigned>(std::stoul(key)) + 1);
    }
    std::uint32_t getOrder() const override { return 1; }

private:
    nis::MapEntry at(unsigned number) const {
        return number < m_entries ? nis::MapEntry{std::to_string(number), std::string(48, 'v')}
                                  : nis::MapEntry::NOT_FOUND;
    }
    unsigned m_entries;
    mutable tessa::ReaderWriterLock m_lock;
};

/// The snapshot of a map, in a folder of its own.
class Snapshot {
public:
    explicit Snapshot(unsigned entries) : m_before(std::filesystem::current_path()) {
        std::filesystem::current_path(m_folder.path());
        m_snapshot = boost::make_shared<nis::CacheSnapshot>(
            boost::make_shared<NumberedMap>(entries), "bench", "bench");
    }
    ~Snapshot() {
        m_snapshot.reset();
        std::filesystem::current_path(m_before);
    }
    Snapshot(const Snapshot&) = delete;
    Snapshot& operator=(const Snapshot&) = delete;
    auto iterator() { return nis::CacheSnapshot::getIterator(m_snapshot); }

private:
    std::filesystem::path m_before;
    test::TempFolder m_folder;
    boost::shared_ptr<nis::CacheSnapshot> m_snapshot;
};

void snapshotCopies(benchmark::State& state) {
    Snapshot snapshot(static_cast<unsigned>(state.range(0)));
    for (auto _ : state) {
        const auto iterator = snapshot.iterator();
        for (nis::MapEntry entry = **iterator; !entry.key.empty(); entry = *++*iterator) {
            benchmark::DoNotOptimize(entry);
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(snapshotCopies)->Arg(100'000)->Unit(benchmark::kMillisecond);

/// As a whole-map transfer reads it.
void snapshotViews(benchmark::State& state) {
    Snapshot snapshot(static_cast<unsigned>(state.range(0)));
    for (auto _ : state) {
        const auto iterator = snapshot.iterator();
        nis::MapEntry entry = **iterator;
        std::array<nis::MapIterator::View, 32> views;
        while (!entry.key.empty()) {
            while (const std::size_t shown = iterator->peek(views)) {
                benchmark::DoNotOptimize(views);
                iterator->skipTo(views[shown - 1]);
            }
            entry = *++*iterator;
        }
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(snapshotViews)->Arg(100'000)->Unit(benchmark::kMillisecond);

} // namespace
