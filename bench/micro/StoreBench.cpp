#include "support/TempFolder.h"

#include <karst/DBStore.h>

#include <benchmark/benchmark.h>

#include <memory>
#include <random>
#include <string>

namespace {

using tessa::DBStore;

std::string keyOf(unsigned number) {
    return "key" + std::to_string(10'000'000 + number);
}

/// A store with that many records of about 60 bytes.
class Filled {
public:
    explicit Filled(unsigned records) {
        m_store.open((m_folder.path() / "store").string(), tessa::DB_CREATE, 0600);
        DBStore::Batch batch(m_store, tessa::DBSync::TO_KERNEL);
        for (unsigned i = 0; i < records; ++i) {
            m_store.store(keyOf(i), std::string(48, 'v'), true);
        }
        batch.commit();
    }
    DBStore& store() { return m_store; }

private:
    test::TempFolder m_folder;
    DBStore m_store;
};

void fetchAmong(benchmark::State& state, unsigned asked) {
    Filled filled(static_cast<unsigned>(state.range(0)));
    std::mt19937 random(1); // NOLINT: the same keys in every run
    std::uniform_int_distribution<unsigned> pick(0, asked - 1);
    for (auto _ : state) {
        benchmark::DoNotOptimize(filled.store().fetch(keyOf(pick(random))));
    }
    state.SetItemsProcessed(state.iterations());
}

/// Look-ups of a few records over and over.
void fetchOften(benchmark::State& state) {
    fetchAmong(state, 100);
}
BENCHMARK(fetchOften)->Arg(1000)->Arg(100'000)->Arg(1'000'000);

void fetchAnywhere(benchmark::State& state) {
    fetchAmong(state, static_cast<unsigned>(state.range(0)));
}
BENCHMARK(fetchAnywhere)->Arg(1000)->Arg(100'000)->Arg(1'000'000);

void walk(benchmark::State& state) {
    Filled filled(static_cast<unsigned>(state.range(0)));
    std::string key;
    for (auto _ : state) {
        DBStore::Record record = filled.store().seek(key, false);
        key = record.found ? std::move(record.key) : std::string();
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(walk)->Arg(1000)->Arg(100'000)->Arg(1'000'000);

void putBatch(benchmark::State& state) {
    const auto count = static_cast<unsigned>(state.range(0));
    for (auto _ : state) {
        Filled filled(count);
    }
    state.SetItemsProcessed(state.iterations() * count);
}
BENCHMARK(putBatch)->Arg(1000)->Arg(100'000)->Arg(1'000'000)->Unit(benchmark::kMillisecond);

void openAndCheck(benchmark::State& state) {
    Filled filled(static_cast<unsigned>(state.range(0)));
    for (auto _ : state) {
        filled.store().checkStructure();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(openAndCheck)->Arg(1000)->Arg(100'000)->Unit(benchmark::kMillisecond);

} // namespace
