// The model check keeps its word: random valid layers of every operator are accepted and run; and of their buffers with
// one field changed, whatever is accepted runs too, for any data, inside memory that ends where the request says.

#include <sys/mman.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "modelkit/attribute_fields.h"
#include "modelkit/check.h"
#include "modelkit/model_file.h"
#include "modelkit/model_reader.h"
#include "modelkit/request.h"
#include "tests/modelkit/check_cases.h"
#include "tests/modelkit/segment_models.h"
#include "tests/support/levels.h"

extern "C" __attribute__((weak)) void __asan_init();

namespace opkit {
namespace {

using namespace opkit::test;
using namespace opkit::modelkit;

constexpr time_t kSecondsPerRun = 20;

bool IsLong()
{
    return std::getenv("OPKIT_TEST_LONG") != nullptr;
}

// What the detection layers find, as if left by a layer before: two boxes in each list.
void SetBoxCounts()
{
    std::fill(std::begin(g_curBoxNum), std::end(g_curBoxNum), 2);
}

// A block of exactly `size` bytes. Under the address sanitizer it comes from the heap; elsewhere a page that nobody may
// touch begins where it ends, and what lies before it must not change.
class FencedBlock {
public:
    explicit FencedBlock(size_t size) : size_(size)
    {
        if (__asan_init != nullptr) {
            heap_ = Buffer(size);
            data_ = heap_.data();
            return;
        }
        const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
        const size_t room = (size + 3) / 4 * 4;
        mapped_ = (room + page - 1) / page * page + 2 * page;
        void* const map = mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (map == MAP_FAILED) {
            throw std::bad_alloc();
        }
        begin_ = static_cast<std::byte*>(map) + page;
        std::byte* const end = static_cast<std::byte*>(map) + mapped_ - page;
        mprotect(map, page, PROT_NONE);
        mprotect(end, page, PROT_NONE);
        data_ = end - room;
        std::memset(begin_, kSlack, static_cast<size_t>(data_ - begin_));
    }
    FencedBlock(const FencedBlock&) = delete;
    FencedBlock& operator=(const FencedBlock&) = delete;
    ~FencedBlock()
    {
        if (begin_ != nullptr) {
            const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
            munmap(begin_ - page, mapped_);
        }
    }

    std::span<std::byte> Span() { return {data_, size_}; }
    bool Untouched() const
    {
        return std::all_of(begin_, begin_ == nullptr ? begin_ : data_,
                           [](std::byte b) { return b == std::byte{kSlack}; });
    }

private:
    static constexpr unsigned char kSlack = 0xA5;
    size_t size_;
    size_t mapped_ = 0;
    Buffer heap_;
    std::byte* begin_ = nullptr;
    std::byte* data_ = nullptr;
};

// A request whose memory is fenced.
class FencedRequest {
public:
    FencedRequest(const ForwardParam& like, const std::vector<ModelTable>& tables)
        : like_(like), model_(like.modelSize), scratch_(like.opkitBufSize)
    {
        for (const ModelTable& table : tables) {
            tables_.push_back({table.layerTableOffset, table.layerTableSize});
        }
        for (const auto& [tensors, count] : {std::pair(like.inputs, like.inputNum), {like.outputs, like.outputNum}}) {
            for (uint32_t i = 0; i < count; ++i) {
                blocks_.push_back(std::make_unique<FencedBlock>(tensors[i].size));
                infos_.push_back(tensors[i]);
                infos_.back().data = blocks_.back()->Span().data();
            }
        }
    }

    // Runs all tables on a copy of `model`. With a generator all tensors and the scratch hold any bits, else the data
    // of the request that this one is like.
    void Run(std::span<const std::byte> model, Random* random)
    {
        std::memcpy(model_.Span().data(), model.data(), model.size());
        Fill(scratch_.Span(), static_cast<const std::byte*>(like_.opkitBuf), random);
        for (size_t i = 0; i < blocks_.size(); ++i) {
            const bool isOutput = i >= like_.inputNum;
            const TensorInfo& source = isOutput ? like_.outputs[i - like_.inputNum] : like_.inputs[i];
            Fill(blocks_[i]->Span(), static_cast<const std::byte*>(source.data), random);
        }
        ForwardParam param = like_;
        param.inputs = infos_.data();
        param.outputs = infos_.data() + like_.inputNum;
        param.opkitBuf = like_.opkitBufSize == 0 ? nullptr : scratch_.Span().data();
        param.model = model_.Span().data();
        for (ModelOffsets offsets : tables_) {
            param.attr = &offsets;
            SetBoxCounts();
            OpkitForward(&param);
        }
        if (!model_.Untouched() || !scratch_.Untouched() ||
            !std::all_of(blocks_.begin(), blocks_.end(), [](const auto& block) { return block->Untouched(); })) {
            std::abort();
        }
    }

private:
    static void Fill(std::span<std::byte> to, const std::byte* from, Random* random)
    {
        if (random == nullptr) {
            std::copy_n(from, to.size(), to.data());
            return;
        }
        const Values values = random->OneOf({Values::kBits, Values::kMixed, Values::kIntegers});
        for (size_t i = 0; i + 4 <= to.size(); i += 4) {
            const float value = random->Float(values);
            std::memcpy(&to[i], &value, 4);
        }
    }

    const ForwardParam& like_;
    std::vector<ModelOffsets> tables_;
    FencedBlock model_;
    FencedBlock scratch_;
    std::vector<std::unique_ptr<FencedBlock>> blocks_;
    std::vector<TensorInfo> infos_;
};

std::string TextOf(const CheckReport& report)
{
    std::string text;
    for (const CheckRefusal& refusal : report.refusals) {
        text += refusal.Text() + "\n";
    }
    for (const CheckCondition& condition : report.conditions) {
        text += condition.Text() + "\n";
    }
    return text;
}

std::vector<std::string> ConditionsOf(const CheckReport& report)
{
    std::vector<std::string> texts;
    for (const CheckCondition& condition : report.conditions) {
        texts.push_back(condition.Text());
    }
    return texts;
}

// A change of one word or one byte of the buffer.
struct Corruption {
    uint64_t at = 0;
    uint32_t size = 4;
    uint32_t value = 0;
    bool inAttributes = false;  // of the operator, so that all tensors stay where they are

    void Apply(std::span<std::byte> model) const { std::memcpy(&model[at], &value, size); }
    std::string Text() const
    {
        return std::to_string(size) + " bytes at " + std::to_string(at) + " set to " + std::to_string(value);
    }
};

class CorruptionList {
public:
    bool inAttributes = false;

    CorruptionList(std::span<const std::byte> model, Random& random) : model_(model), random_(random) {}

    void Words(uint64_t at, uint64_t bytes)
    {
        for (uint64_t i = 0; i + 4 <= bytes; i += 4) {
            Word(at + i);
        }
    }
    void Word(uint64_t at)
    {
        uint32_t word = 0;
        std::memcpy(&word, &model_[at], 4);
        const uint32_t small = static_cast<uint32_t>(random_.Int(2, 80));
        for (const uint32_t value :
             {0u, 1u, word + 1, word - 1, word + 4, word - 4, word * 2, word / 2, 0x7fffffffu, 0x80000000u, 0xffffffffu,
              0x3f800000u, 0xbf800000u, small, small * 4, random_.Word(), word ^ (1u << random_.Int(0, 31))}) {
            if (value != word) {
                list_.push_back({at, 4, value, inAttributes});
            }
        }
    }
    void Byte(uint64_t at)
    {
        for (const uint32_t value : {0u, 1u, 0x30u, 0x31u, 0xffu, random_.Word() & 0xff}) {
            if (std::byte(value) != model_[at]) {
                list_.push_back({at, 1, value, inAttributes});
            }
        }
    }
    std::vector<Corruption> Take() { return std::move(list_); }

private:
    std::span<const std::byte> model_;
    Random& random_;
    std::vector<Corruption> list_;
};

// Every field that the library reads of a model.
std::vector<Corruption> CorruptionsOf(const Model& model, Random& random)
{
    CorruptionList list(model.bytes.Span(), random);
    for (size_t t = 0; t < model.tables.size(); ++t) {
        const ReadTable table = ReadLayerTable(model, t);
        list.Words(table.offset, 4 + 4 * table.layers.size());
        for (const ReadLayer& layer : table.layers) {
            list.Words(layer.recordOffset, sizeof(LayerRecord));
            for (uint32_t i = 0; i < layer.record.nameSize; i += 5) {
                list.Byte(layer.nameOffset + i);
            }
            list.Byte(layer.nameOffset + layer.record.nameSize - 1);
            for (const auto* tensors : {&layer.inputs, &layer.outputs}) {
                for (const ReadTensor& tensor : *tensors) {
                    list.Words(tensor.recordOffset, sizeof(TensorRecord));
                    list.Words(tensor.shapeOffset, tensor.record.shapeSize);
                }
            }
            const uint64_t attr = layer.attrOffset;
            for (uint64_t j = 0; j < layer.offline.size() + 1; ++j) {
                const uint64_t shape = attr + offsetof(LayerAttrHead, offlineShape) + j * sizeof(OfflineShape);
                list.Word(attr + j * 4);
                list.Words(shape,
                           4 * std::min<uint64_t>(j < layer.offline.size() ? layer.offline[j].shape.size() : 1, 10));
                list.Word(shape + offsetof(OfflineShape, dimNum));
            }
            list.Word(attr + offsetof(LayerAttrHead, offlineInputNum));
            for (uint64_t k = 0; k < layer.flags.size() + 2; ++k) {
                list.Byte(attr + offsetof(LayerAttrHead, inputFlags) + k);
            }
            list.inAttributes = true;
            for (const AttributeField& field : FindAttributeRecord(layer.name)->fields) {
                if (field.size % 4 != 0 || field.type == FieldType::kU8) {
                    list.Byte(attr + field.offset);
                } else {
                    list.Words(attr + field.offset, std::min<uint64_t>(field.size, 80));
                }
            }
            list.inAttributes = false;
        }
    }
    return list.Take();
}

struct Tally {
    uint64_t corruptions = 0;
    uint64_t refused = 0;
    uint64_t clean = 0;        // accepted and run
    uint64_t conditional = 0;  // accepted under conditions that the data may not meet any more, so not run

    void Add(const Tally& other)
    {
        corruptions += other.corruptions;
        refused += other.refused;
        clean += other.clean;
        conditional += other.conditional;
    }
};

// Shared with the child that runs the corruptions of one model.
struct Progress {
    uint64_t index;
    Tally tally;
    char accepted[1024];
};

void LimitTime(time_t seconds)
{
    const itimerval timer = {{0, 0}, {seconds, 0}};
    setitimer(ITIMER_REAL, &timer, nullptr);
}

// In a child process: messages of the library go nowhere, a fault ends it, and so does a run that takes too long.
void RunCorruptions(const Model& model, const ForwardParam& like, const std::vector<Corruption>& corruptions,
                    const std::vector<std::string>& conditions, uint64_t seed, Progress* progress)
{
    if (std::freopen("/dev/null", "w", stdout) == nullptr) {
        _exit(3);
    }
    const CheckRequest request = RequestOf(like);
    FencedRequest fenced(like, model.tables);
    std::vector<std::byte> bytes(model.bytes.Span().begin(), model.bytes.Span().end());
    Random random(seed);
    for (progress->index = 0; progress->index < corruptions.size(); ++progress->index) {
        const Corruption& corruption = corruptions[progress->index];
        std::copy_n(model.bytes.data(), bytes.size(), bytes.data());
        corruption.Apply(bytes);
        ++progress->tally.corruptions;
        LimitTime(kSecondsPerRun);
        const CheckReport report = CheckBuffer(bytes, model.tables, request);
        const std::string text = TextOf(report);
        std::snprintf(progress->accepted, sizeof(progress->accepted), "%s", text.c_str());
        if (!report.Accepted()) {
            ++progress->tally.refused;
        } else if (!report.conditions.empty() && (!corruption.inAttributes || ConditionsOf(report) != conditions)) {
            ++progress->tally.conditional;
        } else {
            fenced.Run(bytes, report.conditions.empty() && random.Chance(0.7) ? &random : nullptr);
            ++progress->tally.clean;
        }
    }
    LimitTime(0);
    _exit(0);
}

class Corruptions {
public:
    Corruptions()
    {
        void* const shared = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        EXPECT_NE(shared, MAP_FAILED);
        progress_ = static_cast<Progress*>(shared);
    }
    Corruptions(const Corruptions&) = delete;
    Corruptions& operator=(const Corruptions&) = delete;
    ~Corruptions() { munmap(progress_, sizeof(Progress)); }

    // `like` is a request on the model, its buffer included.
    void Run(const Model& model, const ForwardParam& like, Random& random, const std::string& description)
    {
        const CheckReport report = CheckBuffer(model.bytes.Span(), model.tables, RequestOf(like));
        ASSERT_TRUE(report.Accepted()) << TextOf(report) << description;
        std::vector<Corruption> corruptions = {{0, 0, 0, true}};  // the model as it is comes first
        const std::vector<Corruption> more = CorruptionsOf(model, random);
        corruptions.insert(corruptions.end(), more.begin(), more.end());
        *progress_ = {};
        const LevelScope level(static_cast<Level>(random.Int(0, static_cast<int32_t>(DetectedLevel()))));
        std::fflush(stdout);  // or the child would print it once more
        const pid_t child = fork();
        ASSERT_NE(child, -1);
        if (child == 0) {
            RunCorruptions(model, like, corruptions, ConditionsOf(report), random.Seed(), progress_);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        tally_.Add(progress_->tally);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
            ADD_FAILURE() << (WIFSIGNALED(status) ? strsignal(WTERMSIG(status)) : "the child failed") << " after "
                          << corruptions[std::min<size_t>(progress_->index, corruptions.size() - 1)].Text() << "\n"
                          << progress_->accepted << description;
        }
    }

    void Report(const char* what) const
    {
        std::printf("%s: %llu corruptions, %llu refused, %llu ran clean, %llu under other conditions\n", what,
                    static_cast<unsigned long long>(tally_.corruptions),
                    static_cast<unsigned long long>(tally_.refused), static_cast<unsigned long long>(tally_.clean),
                    static_cast<unsigned long long>(tally_.conditional));
    }
    const Tally& Total() const { return tally_; }

private:
    Progress* progress_ = nullptr;
    Tally tally_;
};

LayerCase MakeCase(const CheckCase& entry, Random& random)
{
    CaseMaker maker(entry.name, random);
    entry.fill(maker);
    return maker.layer;
}

class EveryOperator : public testing::TestWithParam<CheckCase> {};

TEST_P(EveryOperator, RandomValidLayersAreAccepted)
{
    ForRandomCases(IsLong() ? 3000 : 60, [](Random& random) {
        const LayerCase layer = MakeCase(GetParam(), random);
        World world(layer);
        const Model& model = world.ModelInfo();
        const CheckReport report = CheckBuffer(world.ModelBytes(), model.tables, RequestOf(world.Param()));
        EXPECT_TRUE(report.Accepted()) << TextOf(report) << layer.Describe();
        const bool mayFail = layer.OperatorName() == "CustomOpkitForward";
        SetBoxCounts();
        const RunResult run = RunRequestCaptured(world);
        EXPECT_TRUE(run.result == 0 || mayFail || !run.messages.empty()) << layer.Describe();
    });
}

TEST_P(EveryOperator, CorruptionsAreRefusedOrRunClean)
{
    Corruptions corruptions;
    ForRandomCases(IsLong() ? 60 : 4, [&](Random& random) {
        const LayerCase layer = MakeCase(GetParam(), random);
        World world(layer);
        corruptions.Run(world.ModelInfo(), world.Param(), random, layer.Describe());
    });
    corruptions.Report(GetParam().name);
    EXPECT_GT(corruptions.Total().corruptions, 1500u);
    EXPECT_GT(corruptions.Total().refused, 1000u);
    EXPECT_GT(corruptions.Total().clean, 100u);
}

INSTANTIATE_TEST_SUITE_P(Operators, EveryOperator, testing::ValuesIn(CheckCases().begin(), CheckCases().end()),
                         [](const auto& test) {
                             const std::string name = test.param.name;
                             return name.substr(0, name.find("Opkit"));
                         });

TEST(CheckCorruption, EveryOperatorOfTheTableHasCases)
{
    std::vector<std::string_view> names;
    for (const CheckCase& entry : CheckCases()) {
        names.push_back(entry.name);
    }
    std::vector<std::string_view> expected;
    for (const AttributeRecord& record : AttributeRecords()) {
        expected.push_back(record.operatorName);
    }
    EXPECT_THAT(names, testing::UnorderedElementsAreArray(expected));
}

// A network of a dozen layers.
// Tensors of any size bound the number of proposals; as many as the condition allows are decoded inside them.
TEST(CheckCorruption, AsManyProposalsAsTheConditionAllows)
{
    uint32_t accepted = 0;
    ForRandomCases(IsLong() ? 20000 : 1000, [&](Random& random) {
        const auto any = [&](uint32_t low, uint32_t high) {
            return static_cast<uint32_t>(random.Int(static_cast<int32_t>(low), static_cast<int32_t>(high)));
        };
        const uint32_t n = any(1, 9);
        DecBboxAttr attr = {};
        attr.classNum = any(1, 4);
        attr.hasClassId = any(0, 2);
        attr.mergeClasses = any(0, 1);
        const uint32_t boxes = (attr.hasClassId != 0 ? 6 : 5) * n * std::max(attr.classNum, 2U);
        const uint32_t sizes[] = {any(8, 8 * n), any(2, attr.classNum * n + 2), any(boxes / 3, boxes)};
        const auto layerFor = [&](float count) {
            LayerCase layer("DecBboxOpkitForward");
            layer.Attr<DecBboxAttr>() = attr;
            layer.Online({sizes[0]}, {}).Online({sizes[1]}, {}).Online({4}, {}).Online({1}, {count});
            return layer.Online({1, 1, 4, n}, {}).Output({sizes[2]});
        };
        World world(layerFor(0));
        const CheckReport report = CheckBuffer(world.ModelBytes(), world.ModelInfo().tables, RequestOf(world.Param()));
        if (!report.Accepted()) {
            return;
        }
        ++accepted;
        const std::string text = ConditionsOf(report).at(0);
        World most(layerFor(std::stof(text.substr(text.rfind(' ')))));
        FencedRequest(most.Param(), most.ModelInfo().tables).Run(most.ModelBytes(), nullptr);
    });
    EXPECT_GT(accepted, 100u);
}

TEST(CheckCorruption, Digits)
{
    const Model model = LoadModel(std::string(OPKIT_SOURCE_DIR) + "/examples/digits/data/digits");
    EXPECT_TRUE(CheckModel(model).Unconditional()) << TextOf(CheckModel(model));
    EXPECT_EQ(CheckModel(model).batch, 256u);
    Random random(TestSeed());
    Request request(model, 2);
    Corruptions corruptions;
    corruptions.Run(model, request.Param(), random, "digits");
    corruptions.Report("digits");
    EXPECT_GT(corruptions.Total().refused, 1000u);
}

// Several tables, of which each runs in turn.
TEST(CheckCorruption, Segments)
{
    for (const Model& model : {NegateInALoop(0), NegateInALoop(3), Branching()}) {
        EXPECT_TRUE(CheckModel(model).Unconditional()) << TextOf(CheckModel(model));
        Corruptions corruptions;
        ForRandomCases(IsLong() ? 60 : 2, [&](Random& random) {
            Request request(model, 2);
            corruptions.Run(model, request.Param(), random, model.tables[0].name);
        });
        corruptions.Report(model.tables[0].name.c_str());
        EXPECT_GT(corruptions.Total().clean, 1000u);
    }
}

// Bytes without sense: the check itself stays inside them.
TEST(CheckCorruption, AnyBytes)
{
    ForRandomCases(IsLong() ? 200000 : 3000, [](Random& random) {
        Buffer bytes(static_cast<size_t>(random.Int(0, 6000)));
        const bool small = random.Chance(0.5);
        for (uint32_t& word : bytes.Words()) {
            word = random.Chance(0.3) ? random.Word() : static_cast<uint32_t>(random.Int(0, small ? 8 : 5000));
        }
        const CheckRequest request = {{{64, 16}}, {{64, 16}}, 256, 2};
        const ModelTable table = {0, "", static_cast<uint32_t>(random.Int(0, 64)) * 4, random.Word() % 64, {}};
        const CheckReport report = CheckBuffer(bytes.Span(), std::span(&table, 1), request);
        for (const CheckRefusal& refusal : report.refusals) {
            EXPECT_EQ(refusal.Text().find('\n'), std::string::npos);
        }
    });
}

}  // namespace
}  // namespace opkit
