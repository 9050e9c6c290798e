#include "bench/table.h"

#include <algorithm>
#include <cmath>
#include <ctime>
#include <iterator>

namespace opkit::bench {
namespace {

double Median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double TimeOf(const Work& work, long calls)
{
    const double start = CpuSeconds();
    for (long i = 0; i < calls; ++i) {
        work();
    }
    return (CpuSeconds() - start) / static_cast<double>(calls);
}

// Calls that fill a sample. The first call pages memory in and is not counted.
long CallsFor(const Work& work, double sampleSeconds)
{
    const double once = TimeOf(work, 1);
    if (once > sampleSeconds) {
        return 1;
    }
    long calls = 1;
    double seconds = 0;
    while (calls < 1000000 && (seconds = TimeOf(work, calls) * static_cast<double>(calls)) < sampleSeconds / 4) {
        calls *= 4;
    }
    return std::max(1L, std::lround(static_cast<double>(calls) * sampleSeconds / std::max(seconds, 1e-9)));
}

}  // namespace

double CpuSeconds()
{
    timespec now;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

RowResult Measure(const RowMaker& maker, const Effort& effort)
{
    Row row = maker.make();
    RowResult result;
    result.group = maker.group;
    result.name = maker.name;
    result.unit = row.unit;
    if (row.same) {
        row.ours();
        for (const Peer& peer : row.peers) {
            if (peer.run && !peer.once) {
                peer.run();
            }
        }
        result.same = row.same();
    }

    const long ourCalls = CallsFor(row.ours, effort.sampleSeconds);
    std::vector<double> ours;
    std::vector<long> calls(row.peers.size(), 1);
    std::vector<std::vector<double>> times(row.peers.size());
    for (size_t p = 0; p < row.peers.size(); ++p) {
        if (row.peers[p].run && !row.peers[p].once) {
            calls[p] = CallsFor(row.peers[p].run, effort.sampleSeconds);
        }
    }
    for (int round = 0; round < effort.rounds; ++round) {
        ours.push_back(TimeOf(row.ours, ourCalls));
        for (size_t p = 0; p < row.peers.size(); ++p) {
            const Peer& peer = row.peers[p];
            if (peer.run && (round == 0 || !peer.once)) {
                times[p].push_back(TimeOf(peer.run, calls[p]));
            }
        }
    }
    result.seconds = Median(ours);
    result.rate = row.work / result.seconds * 1e-9;
    for (size_t p = 0; p < row.peers.size(); ++p) {
        const Peer& peer = row.peers[p];
        PeerResult entry = {peer.name, 0, 0, peer.ratio, peer.target, !times[p].empty()};
        if (entry.measured) {
            std::vector<double> ratios;
            for (size_t round = 0; round < ours.size(); ++round) {
                const double other = times[p][std::min(round, times[p].size() - 1)];
                ratios.push_back(peer.ratio == Ratio::kSpeed ? other / ours[round] : ours[round] / other);
            }
            entry.seconds = Median(times[p]);
            entry.ratio = Median(ratios);
        }
        result.peers.push_back(entry);
    }
    return result;
}

std::vector<RowMaker> AllRows()
{
    std::vector<RowMaker> rows;
    for (auto* group :
         {MatrixRows, ElementwiseRows, PoolingRows, SelectionRows, MovementRows, DetectionRows, DriverRows}) {
        std::vector<RowMaker> more = group();
        std::move(more.begin(), more.end(), std::back_inserter(rows));
    }
    return rows;
}

}  // namespace opkit::bench
