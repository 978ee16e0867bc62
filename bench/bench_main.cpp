// Runs the benchmarks and prints, from the figures of this one run, the ratios
// the driver is held to, each with its bound and whether it holds. The exit
// code is 1 when a bound is missed.
#include "bench_support.h"

#include <benchmark/benchmark.h>

#include <QCoreApplication>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include <unistd.h>

namespace {

struct Figure {
    double seconds = 0; // per iteration: processor time, wall time for the loopback loop
    std::map<std::string, double> counters;
};

// The console output as usual, plus every run kept by name.
class KeepingReporter : public benchmark::ConsoleReporter {
  public:
    explicit KeepingReporter(OutputOptions options) : ConsoleReporter(options)
    {
    }

    std::map<std::string, Figure> figures;

    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration)
                continue;
            Figure f;
            const double unit = benchmark::GetTimeUnitMultiplier(run.time_unit);
            // The loop waits on the link, so its own time is wall time; the
            // rest run on one thread without waiting and count processor time.
            const bool wall = run.run_name.function_name.rfind("BM_Loopback", 0) == 0;
            f.seconds = (wall ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime()) / unit;
            for (const auto &c : run.counters)
                f.counters[c.first] = c.second.value;
            // With repetitions the fastest one counts: the others were slowed
            // by whatever else the machine was doing.
            const auto kept = figures.find(run.benchmark_name());
            if (kept == figures.end() || f.seconds < kept->second.seconds)
                figures[run.benchmark_name()] = f;
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

const Figure *find(const std::map<std::string, Figure> &figures, const std::string &name)
{
    // Repetitions or options may add suffixes ("/real_time", "/min_time:2.000").
    for (const auto &entry : figures) {
        if (entry.first == name || entry.first.rfind(name + "/", 0) == 0)
            return &entry.second;
    }
    return nullptr;
}

int failures = 0;
int missing = 0;

void verdict(const char *what, bool have, double value, const char *relation, double bound,
             const char *detail)
{
    if (!have) {
        ++missing;
        std::printf("  %-46s  not measured in this run\n", what);
        return;
    }
    const bool ok = relation[0] == '<' ? value <= bound : value >= bound;
    if (!ok)
        ++failures;
    std::printf("  %-46s  %10.4g  %s %-8g %s   %s\n", what, value, relation, bound,
                ok ? "ok  " : "MISS", detail);
}

// How a figure grows from a small run to a large one, for information: format
// takes the ratio, then both figures in seconds times unit.
void printGrowth(const std::map<std::string, Figure> &figures, const char *small, const char *large,
                 const char *format, double unit)
{
    const Figure *a = find(figures, small);
    const Figure *b = find(figures, large);
    if (a && b)
        std::printf(format, b->seconds / a->seconds, b->seconds * unit, a->seconds * unit);
}

void printSummary(const std::map<std::string, Figure> &figures)
{
    using xbcbench::lineSeconds;
    std::printf("\nSummary: ratios of this run against their bounds\n");

    const double line = lineSeconds(xbcbench::READ_REQUEST_BYTES, xbcbench::READ_127_REPLY_BYTES,
                                    xbcbench::SERIAL_BAUD);
    const Figure *ex = find(figures, "BM_Exchange127Words");
    char detail[200];
    const double notes = ex && ex->counters.count("notes_per_exchange")
                             ? ex->counters.at("notes_per_exchange")
                             : 0.0;
    std::snprintf(detail, sizeof detail, "%.2f us per exchange, line time %.2f ms, %.0f notes",
                  ex ? ex->seconds * 1e6 : 0.0, line * 1e3, notes);
    verdict("exchange / line time at 115200 baud", ex != nullptr, ex ? ex->seconds / line : 0, "<",
            0.001, detail);

    const Figure *g1 = find(figures, "BM_GetDataOneWord/1000");
    const Figure *g6 = find(figures, "BM_GetDataOneWord/1000000");
    std::snprintf(detail, sizeof detail, "%.1f ns with 1e6 records, %.1f ns with 1e3",
                  g6 ? g6->seconds * 1e9 : 0.0, g1 ? g1->seconds * 1e9 : 0.0);
    verdict("getData 1 word: 1e6 / 1e3 records", g1 && g6, g1 && g6 ? g6->seconds / g1->seconds : 0,
            "<", 2.0, detail);

    const Figure *m4 = find(figures, "BM_AddrMerge/10000");
    const Figure *m5 = find(figures, "BM_AddrMerge/100000");
    std::snprintf(detail, sizeof detail, "%.1f ms for 1e5 keys, %.1f ms for 1e4",
                  m5 ? m5->seconds * 1e3 : 0.0, m4 ? m4->seconds * 1e3 : 0.0);
    verdict("addrMerge: 1e5 / 1e4 keys", m4 && m5, m4 && m5 ? m5->seconds / m4->seconds : 0, "<",
            15.0, detail);

    for (const char *words : {"1", "127"}) {
        const Figure *lb = find(figures, std::string("BM_LoopbackExchange/") + words);
        const bool have = lb != nullptr && lb->counters.count("driver_share");
        std::snprintf(detail, sizeof detail, "%.0f exchanges/s, %.2f us driver per exchange",
                      have ? lb->counters.at("exchanges_per_s") : 0.0,
                      have ? lb->counters.at("driver_us_per_exch") : 0.0);
        const std::string what = std::string("loopback ") + words + "-word read: driver share";
        verdict(what.c_str(), have, have ? lb->counters.at("driver_share") : 0, "<", 0.10, detail);
    }

    std::printf("\nFor information\n");
    printGrowth(figures, "BM_SetDataOneWord/1000", "BM_SetDataOneWord/1000000",
                "  setData 1 word: 1e6 / 1e3 records = %.3g (%.1f ns / %.1f ns)\n", 1e9);
    const Figure *s1 = find(figures, "BM_SetDataOneWord/1000");
    const Figure *full = find(figures, "BM_SetDataFullWriteList");
    if (full && s1)
        std::printf("  setData 1 word, write list at 513 entries: %.2f us (%.3g x a short list)\n",
                    full->seconds * 1e6, full->seconds / s1->seconds);
    printGrowth(figures, "BM_GetDataScattered/1000", "BM_GetDataScattered/1000000",
                "  getData, 4096 scattered words: 1e6 / 1e3 records = %.3g (%.1f ns / %.1f ns)\n",
                1e9);
    printGrowth(figures, "BM_AddrMerge/1000", "BM_AddrMerge/10000",
                "  addrMerge: 1e4 / 1e3 keys = %.3g (%.2f ms / %.3f ms)\n", 1e3);
    if (ex) {
        std::printf(
            "  exchange of 127 changing words: %.2f us = %.3g of a 1 ms Ethernet round trip\n",
            ex->seconds * 1e6, ex->seconds / 1e-3);
    }
    std::printf("\n%s\n", failures  ? "SOME BOUNDS MISSED"
                          : missing ? "every measured bound holds (some not measured)"
                                    : "every bound holds");
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 2;
    // Colours only on a terminal, so that saved output stays plain text.
    KeepingReporter reporter(isatty(STDOUT_FILENO) ? benchmark::ConsoleReporter::OO_ColorTabular
                                                   : benchmark::ConsoleReporter::OO_Tabular);
    benchmark::RunSpecifiedBenchmarks(&reporter);
#ifdef XBC_BENCH_LOOPBACK
    xbcbench::shutdownLoopback();
#endif
    printSummary(reporter.figures);
    benchmark::Shutdown();
    return failures ? 1 : 0;
}
