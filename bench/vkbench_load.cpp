// vkbench_load: how long loading a signature database takes.
//
//   vkbench_load DATA_DIR [--repeat N]
//
// Loads every database of DATA_DIR the way a scan does before it judges the first file (the
// scan center's record loader, VkSqliteManager::loadAllRecords, then the size index of
// VkTorjanRecordList), N times, and prints the first run (the heap still growing, as in a
// scan), the fastest and the median. A last, separate pass splits the same work into its
// parts (reading the rows and deciphering their hashes; building the index) and then reads
// every record's name, as a listing does, which deciphers the names. Peak RSS is the whole
// process's, taken before that listing (one load's records are alive at a time).
//
// A benchmark, not a test: bench/run.sh builds and runs it.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/resource.h>
#include <vector>

#include "database/VkSqliteManager.h"
#include "engine/VkTorjanRecordList.h"
#include "platform/VkContext.h"

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point start) {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

long peakRssKiB() {
    struct rusage usage {};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;  // KiB on Linux
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    size_t n = v.size();
    return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

struct Parts {
    double load = 0;
    double index = 0;
    double list = 0;
    size_t records = 0;
    size_t bytes = 0;
    long rssBeforeList = 0;
};

Parts loadInParts(const std::shared_ptr<VkContext>& ctx) {
    Parts parts;
    auto start = Clock::now();
    VkTorjanRecordList::Items items = VkSqliteManager::loadAllRecords(ctx);
    parts.load = msSince(start);
    start = Clock::now();
    auto list = VkTorjanRecordList::make(std::move(items));
    parts.index = msSince(start);
    parts.records = list->size();
    parts.bytes = list->items().memoryBytes();
    parts.rssBeforeList = peakRssKiB();
    start = Clock::now();
    size_t named = 0;
    for (const auto& item : list->items())
        named += item && item->name() ? 1 : 0;
    parts.list = msSince(start);
    if (named != parts.records)
        std::fprintf(stderr, "vkbench_load: %zu of %zu records have a name\n", named,
                     parts.records);
    return parts;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: vkbench_load DATA_DIR [--repeat N]\n");
        return 2;
    }
    int repeat = 3;
    for (int i = 2; i < argc; ++i) {
        if (std::strcmp(argv[i], "--repeat") == 0 && i + 1 < argc)
            repeat = std::max(1, std::atoi(argv[++i]));
    }
    VkContextOptions options;
    options.dataFolder = argv[1];
    auto ctx = VkContext::create(options);

    std::vector<double> totals;
    size_t records = 0;
    for (int i = 0; i < repeat; ++i) {
        auto start = Clock::now();
        auto list = VkTorjanRecordList::make(VkSqliteManager::loadAllRecords(ctx));
        totals.push_back(msSince(start));
        records = list->size();
    }
    Parts parts = loadInParts(ctx);
    if (records == 0) {
        std::fprintf(stderr, "vkbench_load: no records in %s\n", argv[1]);
        return 1;
    }
    std::printf(
        "records=%zu runs=%d first_ms=%.1f best_ms=%.1f median_ms=%.1f load_ms=%.1f "
        "index_ms=%.1f list_ms=%.1f held_mib=%.1f peak_rss_kib=%ld\n",
        records, repeat, totals.front(), *std::min_element(totals.begin(), totals.end()),
        median(totals), parts.load, parts.index, parts.list, parts.bytes / 1048576.0,
        parts.rssBeforeList);
    return 0;
}
