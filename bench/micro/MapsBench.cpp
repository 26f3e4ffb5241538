#include "maps/GroupMap.h"
#include "maps/netgroup/InversionTables.h"
#include "maps/netgroup/MemberParser.h"

#include <benchmark/benchmark.h>

#include <list>
#include <string>

namespace {

/// A chain of netgroups, each in the next: all parents of the innermost.
void netgroupExpansion(benchmark::State& state) {
    nis::GroupInversionTable table;
    for (int i = 0; i < state.range(0); ++i) {
        table.put("group" + std::to_string(i), "group" + std::to_string(i + 1));
    }
    for (auto _ : state) {
        nis::NetgroupNames names{"group0"};
        table.expand(names);
        benchmark::DoNotOptimize(names);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(netgroupExpansion)->Arg(6)->Arg(100)->Arg(1000);

void netgroupMembers(benchmark::State& state) {
    std::string value;
    for (int i = 0; i < state.range(0); ++i) {
        value += "(host" + std::to_string(i) + ",user,domain) group" + std::to_string(i) + " ";
    }
    for (auto _ : state) {
        std::list<nis::NetgroupEntry> members;
        nis::ParseNetgroupMembers(value, members, false, "bench");
        benchmark::DoNotOptimize(members);
    }
    state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(value.size()));
}
BENCHMARK(netgroupMembers)->Arg(10)->Arg(1000);

void groupLines(benchmark::State& state) {
    tessa::GroupRecord group;
    group.name = "staff";
    group.gid = 100;
    for (int i = 0; i < state.range(0); ++i) {
        group.members.push_back("user" + std::to_string(100'000 + i));
    }
    for (auto _ : state) {
        nis::GroupMap::render(group, {"_", 1024}, [](const std::string&, const std::string& line) {
            benchmark::DoNotOptimize(line.data());
        });
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(groupLines)->Arg(10)->Arg(5000)->Arg(100'000);

} // namespace
