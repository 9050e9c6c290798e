// opkit_bench: measures the table of docs/performance.md.
//
//     opkit_bench [--quick] [--level baseline|avx2|avx512|vnni] [--only TEXT] [--json FILE] [--no-growth] [--list]
//
// Ratios hold for one run: candidates alternate. Peers run on one thread. With --only neither the limits of the machine
// nor the growth of cost are measured.

#include <unistd.h>

#include <benchmark/benchmark.h>
#include <cpuid.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "bench/growth.h"
#include "bench/peers.h"
#include "bench/table.h"
#include "kernels/level.h"
#include "opkit/opkit.h"

using namespace opkit;
using namespace opkit::bench;

namespace {

struct Options {
    bool quick = false;
    bool list = false;
    bool growth = true;
    std::string only;
    std::string json;
    Level level = DetectedLevel();
};

[[noreturn]] void Usage()
{
    std::fprintf(stderr,
                 "usage: opkit_bench [--quick] [--level baseline|avx2|avx512|vnni] [--only TEXT] [--json FILE] "
                 "[--no-growth] [--list]\n");
    std::exit(2);
}

Level LevelOf(const std::string& name)
{
    if (name == "baseline") {
        return Level::kBaseline;
    }
    if (name == "avx2") {
        return Level::kAvx2;
    }
    if (name == "avx512") {
        return Level::kAvx512;
    }
    if (name == "vnni") {
        return Level::kVnni;
    }
    Usage();
}

Options Parse(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        const auto value = [&] {
            if (i + 1 >= argc) {
                Usage();
            }
            return std::string(argv[++i]);
        };
        if (argument == "--quick") {
            options.quick = true;
        } else if (argument == "--list") {
            options.list = true;
        } else if (argument == "--no-growth") {
            options.growth = false;
        } else if (argument == "--only") {
            options.only = value();
        } else if (argument == "--json") {
            options.json = value();
        } else if (argument == "--level") {
            options.level = LevelOf(value());
        } else {
            Usage();
        }
    }
    return options;
}

std::string CpuModel()
{
    std::ifstream info("/proc/cpuinfo");
    for (std::string line; std::getline(info, line);) {
        if (line.rfind("model name", 0) == 0) {
            return line.substr(line.find(':') + 2);
        }
    }
    return "unknown";
}

std::string Today()
{
    const std::time_t now = std::time(nullptr);
    char text[16];
    std::strftime(text, sizeof(text), "%Y-%m-%d", std::gmtime(&now));
    return text;
}

// The peers' libraries read their settings when they are loaded: the program starts itself again with one thread each
// and, where OpenBLAS would not know the processor, with its best kernels named.
void RestartWithPeerSettings(char** argv)
{
    if (std::getenv("OMP_NUM_THREADS") != nullptr && std::getenv("OPENBLAS_NUM_THREADS") != nullptr) {
        return;
    }
    setenv("OMP_NUM_THREADS", "1", 1);
    setenv("OPENBLAS_NUM_THREADS", "1", 1);
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl")) {
        setenv("OPENBLAS_CORETYPE", "SKYLAKEX", 0);
    }
    execv("/proc/self/exe", argv);
}

const char* TargetSign(Ratio ratio)
{
    return ratio == Ratio::kSpeed ? ">=" : "<=";
}

std::string TimeText(double seconds)
{
    char text[32];
    if (seconds < 1e-6) {
        std::snprintf(text, sizeof(text), "%.1f ns", seconds * 1e9);
    } else if (seconds < 1e-3) {
        std::snprintf(text, sizeof(text), "%.1f us", seconds * 1e6);
    } else {
        std::snprintf(text, sizeof(text), "%.2f ms", seconds * 1e3);
    }
    return text;
}

void Print(const RowResult& row)
{
    std::printf("%-14s %-42s %10s", row.group.c_str(), row.name.c_str(), TimeText(row.seconds).c_str());
    if (!row.unit.empty()) {
        std::printf("  %8.3g %s", row.rate, row.unit.c_str());
    }
    std::printf("%s\n", row.same ? "" : "  RESULTS DIFFER");
    for (const PeerResult& peer : row.peers) {
        std::printf("%-14s   %-40s ", "", peer.name.c_str());
        if (!peer.measured) {
            std::printf("%10s\n", "not installed");
            continue;
        }
        std::printf("%10s  %s %.3g", TimeText(peer.seconds).c_str(), peer.kind == Ratio::kSpeed ? "speed" : "time",
                    peer.ratio);
        if (peer.Judged()) {
            std::printf("  target %s %g  %s", TargetSign(peer.kind), peer.target, peer.Met() ? "met" : "MISSED");
        }
        std::printf("\n");
    }
    std::fflush(stdout);
}

nlohmann::ordered_json Json(const RowResult& row)
{
    nlohmann::ordered_json entry = {{"group", row.group}, {"name", row.name}, {"seconds", row.seconds},
                                    {"rate", row.rate},   {"unit", row.unit}, {"same", row.same}};
    entry["peers"] = nlohmann::json::array();
    for (const PeerResult& peer : row.peers) {
        nlohmann::ordered_json other = {{"name", peer.name}, {"measured", peer.measured}};
        if (peer.measured) {
            other["seconds"] = peer.seconds;
            other["ratio"] = peer.ratio;
            other["kind"] = peer.kind == Ratio::kSpeed ? "speed" : "time";
            if (peer.Judged()) {
                other["target"] = peer.target;
                other["met"] = peer.Met();
            }
        }
        entry["peers"].push_back(other);
    }
    return entry;
}

}  // namespace

int main(int argc, char** argv)
{
    const Options options = Parse(argc, argv);
    std::vector<RowMaker> rows = AllRows();
    std::erase_if(rows, [&](const RowMaker& row) {
        return (row.group + " " + row.name).find(options.only) == std::string::npos;
    });
    if (options.list) {
        for (const RowMaker& row : rows) {
            std::printf("%s %s\n", row.group.c_str(), row.name.c_str());
        }
        return 0;
    }
    RestartWithPeerSettings(argv);
    peers::UseOneThread();
    OverrideLevel(options.level);

    nlohmann::ordered_json report;
    report["date"] = Today();
    report["processor"] = CpuModel();
    report["level"] = LevelName(ActiveLevel());
    report["openblas"] = peers::BlasName();
    report["onednn"] = peers::DnnlName();
    std::printf("processor %s, level %s\nOpenBLAS  %s\noneDNN    %s\n", CpuModel().c_str(), LevelName(ActiveLevel()),
                peers::BlasName().c_str(), peers::DnnlName().c_str());
    if (options.only.empty()) {
        const Peaks peaks = MeasurePeaks();
        report["peaks"] = {{"separate", peaks.separate},
                           {"fused", peaks.fused},
                           {"copyCached", peaks.copyCached},
                           {"copyLarge", peaks.copyLarge},
                           {"readCached", peaks.readCached}};
        std::printf(
            "peaks     multiply and add apart %.0f GFLOP/s, fused %.0f; copy %.0f GB/s in the caches, "
            "%.0f from memory; read %.0f GB/s\n",
            peaks.separate, peaks.fused, peaks.copyCached, peaks.copyLarge, peaks.readCached);
    }
    std::printf("\n");

    const Effort effort = options.quick ? Effort{5, 0.002} : Effort{15, 0.006};
    int missed = 0;
    bool same = true;
    report["rows"] = nlohmann::json::array();
    for (const RowMaker& maker : rows) {
        const RowResult row = Measure(maker, effort);
        Print(row);
        for (const PeerResult& peer : row.peers) {
            missed += peer.Judged() && !peer.Met() ? 1 : 0;
        }
        same = same && row.same;
        report["rows"].push_back(Json(row));
    }
    if (options.growth && options.only.empty()) {
        const Growth growth = MeasureGrowth(options.quick);
        std::printf("\ngrowth\n");
        report["growth"] = nlohmann::json::array();
        for (const GrowthPoint& point : growth.points) {
            std::printf("%-16s %10.0f %12s\n", point.series.c_str(), point.size, TimeText(point.seconds).c_str());
            report["growth"].push_back({{"series", point.series}, {"size", point.size}, {"seconds", point.seconds}});
        }
    }
    std::printf("\n%d targets missed%s\n", missed, same ? "" : "; RESULTS DIFFER");
    if (!options.json.empty()) {
        std::ofstream(options.json) << report.dump(1) << '\n';
    }
    return same ? 0 : 1;
}
