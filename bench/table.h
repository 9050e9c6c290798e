// The table of measurements: each row is a piece of work that opkit does and that others, or plain loops, or the
// memory, do too. A row's candidates run in alternation, in short samples, so that what the machine does meanwhile
// hits all of them; ratios of one round are compared, and the median of the rounds counts.
#ifndef OPKIT_BENCH_TABLE_H
#define OPKIT_BENCH_TABLE_H

#include <functional>
#include <span>
#include <string>
#include <vector>

namespace opkit::bench {

using Work = std::function<void()>;

// How a ratio is read: our speed over the peer's, which should be at least the target, or our time over the peer's,
// which should be at most the target.
enum class Ratio { kSpeed, kTime };

struct Peer {
    std::string name;
    Work run;  // empty: not installed, the row says so
    Ratio ratio = Ratio::kSpeed;
    double target = 0;  // 0: shown without a verdict
    bool once = false;  // too slow for more than one call
};

struct Row {
    std::string name;
    double work = 0;        // per call: floating-point operations or bytes moved
    const char* unit = "";  // what work / time is shown in: "GFLOP/s", "GB/s", or ""
    Work ours;
    std::vector<Peer> peers;
    std::function<bool()> same = {};  // whether the candidates' results agree, after each ran once
};

// Builds a row's data when its turn comes.
struct RowMaker {
    std::string group;
    std::string name;
    std::function<Row()> make;
};

struct PeerResult {
    std::string name;
    double seconds = 0;
    double ratio = 0;  // 0: not measured
    Ratio kind = Ratio::kSpeed;
    double target = 0;
    bool measured = false;

    bool Judged() const { return measured && target > 0; }
    bool Met() const { return kind == Ratio::kSpeed ? ratio >= target : ratio <= target; }
};

struct RowResult {
    std::string group;
    std::string name;
    double seconds = 0;
    double rate = 0;
    std::string unit;
    bool same = true;
    std::vector<PeerResult> peers;
};

struct Effort {
    int rounds;
    double sampleSeconds;
};

// CPU time of this process: time slices that others take are not counted, and a peer that starts threads gains nothing.
double CpuSeconds();

RowResult Measure(const RowMaker& maker, const Effort& effort);

// All rows, in the order of the table.
std::vector<RowMaker> AllRows();
std::vector<RowMaker> MatrixRows();
std::vector<RowMaker> ElementwiseRows();
std::vector<RowMaker> PoolingRows();
std::vector<RowMaker> MovementRows();
std::vector<RowMaker> SelectionRows();
std::vector<RowMaker> DetectionRows();
std::vector<RowMaker> DriverRows();

// Keeps a result that nothing reads.
inline void Keep(const void* data)
{
    asm volatile("" : : "g"(data) : "memory");
}

// What the processor can reach on one core: fused and separate multiply and add in the widest registers of the level,
// and moving memory.
struct Peaks {
    double separate = 0;  // GFLOP/s
    double fused = 0;
    double copyCached = 0;  // GB/s read and written, 1 MB
    double copyLarge = 0;   // 64 MB
    double readCached = 0;  // GB/s, 4 MB
};
Peaks MeasurePeaks();

}  // namespace opkit::bench

#endif  // OPKIT_BENCH_TABLE_H
