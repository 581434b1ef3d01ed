// vkbench_load: how long loading and deciphering a signature database takes.
//
//   vkbench_load DATA_DIR [--repeat N]
//
// Loads every database of DATA_DIR the way a file walk does before it judges the first file
// (VkTorjanScan::getCurrentTorjanItems, then the size index of VkTorjanRecordList), N times,
// and prints the first run (the heap still growing, as in a scan), the fastest and the
// median. A second, separate pass splits the same work into its parts: reading the rows from
// SQLite, deciphering them, building the index. Peak RSS is the whole process's (one load's
// records are alive at a time).
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
#include "detectors/VkAntiTrojan.h"
#include "engine/VkTorjanRecordList.h"
#include "engine/VkTorjanScan.h"

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
    double read = 0;
    double decipher = 0;
    double index = 0;
    size_t records = 0;
};

// The steps of getCurrentTorjanItems and of the walk's index, timed one by one.
Parts loadInParts(const std::shared_ptr<VkContext>& ctx) {
    Parts parts;
    auto start = Clock::now();
    VkTorjanRecordList::Items items;
    VkSqliteManager manager(ctx);
    for (const std::string& path : manager.dataBasePaths()) {
        manager.openDataBase(path);
        const auto& rows = manager.TorjanItemArray();
        items.insert(items.end(), rows.begin(), rows.end());
        manager.closeDataBase();
    }
    parts.read = msSince(start);
    start = Clock::now();
    for (const auto& item : items)
        item->deCodeTrojanInfo();
    parts.decipher = msSince(start);
    start = Clock::now();
    auto list = VkTorjanRecordList::make(std::move(items));
    parts.index = msSince(start);
    parts.records = list->size();
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
    VkTorjanScan scan(ctx->systemRoot, ctx->dataFolder, ctx->userDefaults, ctx->pacing);

    std::vector<double> totals;
    size_t records = 0;
    for (int i = 0; i < repeat; ++i) {
        auto start = Clock::now();
        auto list = VkTorjanRecordList::make(scan.getCurrentTorjanItems());
        totals.push_back(msSince(start));
        records = list->size();
    }
    Parts parts = loadInParts(ctx);
    if (records == 0) {
        std::fprintf(stderr, "vkbench_load: no records in %s\n", argv[1]);
        return 1;
    }
    std::printf(
        "records=%zu runs=%d first_ms=%.1f best_ms=%.1f median_ms=%.1f read_ms=%.1f "
        "decipher_ms=%.1f index_ms=%.1f peak_rss_kib=%ld\n",
        records, repeat, totals.front(), *std::min_element(totals.begin(), totals.end()),
        median(totals), parts.read, parts.decipher, parts.index, peakRssKiB());
    return 0;
}
