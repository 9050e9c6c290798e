#include "tools/throughput.h"

#include <fmt/core.h>
#include <barrier>
#include <chrono>
#include <cstring>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

#include "modelkit/model_reader.h"
#include "tools/command.h"
#include "tools/progress.h"

namespace opkit::tools {
namespace {

using namespace opkit::modelkit;
using Clock = std::chrono::steady_clock;

bool SameBits(const RunData& a, const RunData& b)
{
    for (size_t i = 0; i < a.tensors.size(); ++i) {
        if (a.tensors[i].size() != b.tensors[i].size() ||
            std::memcmp(a.tensors[i].data(), b.tensors[i].data(), a.tensors[i].size() * sizeof(float)) != 0) {
            return false;
        }
    }
    return true;
}

// Seconds from the moment that all streams are warm until the last one is through.
double RunStreams(const Model& model, const RunData& inputs, const RunData& expected,
                  const StreamOptions& streamOptions, const ThroughputOptions& options, uint32_t threadCount)
{
    const uint64_t requests = (inputs.items + streamOptions.batch - 1) / streamOptions.batch;
    Progress progress("requests", requests * threadCount * (1 + options.warmup + options.repeat));
    Clock::time_point begin;
    std::barrier warm(threadCount, [&]() noexcept { begin = Clock::now(); });
    std::mutex mutex;
    std::exception_ptr failure;
    const auto fail = [&](std::exception_ptr error) {
        const std::lock_guard lock(mutex);
        failure = failure ? failure : error;
    };
    const auto run = [&] {
        bool waited = false;
        try {
            Stream stream(model, inputs, streamOptions);
            stream.OnRequest([&] { progress.Advance(); });
            if (!SameBits(stream.RunFresh(), expected)) {
                throw ToolError("a stream's outputs differ from those of the first run");
            }
            for (uint32_t i = 0; i < options.warmup; ++i) {
                stream.RunOn();
            }
            waited = true;
            warm.arrive_and_wait();
            for (uint32_t i = 0; i < options.repeat; ++i) {
                stream.RunOn();
            }
        } catch (...) {
            fail(std::current_exception());
            if (!waited) {
                warm.arrive_and_drop();
            }
        }
    };
    std::vector<std::thread> threads;
    for (uint32_t i = 0; i < threadCount; ++i) {
        try {
            threads.emplace_back(run);
        } catch (const std::system_error& error) {
            fail(
                std::make_exception_ptr(ToolError(fmt::format("--threads: thread {}: {}", i, error.code().message()))));
            warm.arrive_and_drop();
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    if (failure) {
        std::rethrow_exception(failure);
    }
    return std::chrono::duration<double>(Clock::now() - begin).count();
}

}  // namespace

void RefuseUnique(const Model& model)
{
    // It sorts by a size that the whole process shares.
    for (size_t t = 0; t < model.tables.size(); ++t) {
        const std::vector<ReadLayer> layers = ReadLayerTable(model, t).layers;
        for (size_t i = 0; i < layers.size(); ++i) {
            if (layers[i].name == "UniqueOpkitForward") {
                throw ToolError(
                    fmt::format("--threads: layer {} of segment {} is UniqueOpkitForward, which must not "
                                "run on two threads at once",
                                i, model.tables[t].segmentId));
            }
        }
    }
}

void MeasureThroughput(const Model& model, const RunData& inputs, const RunData& expected,
                       const StreamOptions& streamOptions, const ThroughputOptions& options)
{
    fmt::print("\n{:>7}  {:>14}  {:>7}\n", "threads", "items/s", "ratio");
    double single = 0;
    for (const uint32_t threads : {uint32_t{1}, options.threads}) {
        const double seconds = RunStreams(model, inputs, expected, streamOptions, options, threads);
        const double rate = static_cast<double>(inputs.items) * options.repeat * threads / seconds;
        single = threads == 1 && single == 0 ? rate : single;
        fmt::print("{:>7}  {:>14.1f}  {:>7.2f}\n", threads, rate, rate / single);
    }
    fmt::print(
        "{} runs per stream, each stream on its own copy of the model buffer, on {} processors; every stream's "
        "first outputs are those above, bit for bit\n",
        options.repeat, std::thread::hardware_concurrency());
}

}  // namespace opkit::tools
