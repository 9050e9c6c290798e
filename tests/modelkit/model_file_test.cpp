#include "modelkit/model_file.h"

#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "modelkit/model_builder.h"

namespace {

using namespace opkit::modelkit;
namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

class ModelFile : public testing::Test {
protected:
    ModelFile()
    {
        std::string pattern = (fs::temp_directory_path() / "opkit-model-XXXXXX").string();
        directory_ = mkdtemp(pattern.data());
        ModelBuilder builder(3);
        const TensorRef x = builder.AddInput({"x", {2, 3}, 16});
        const TensorRef y = builder.AddOutput({"y", {2, 3}});
        const TensorRef t = builder.AddScratch({"t", {2, 3}}, true);
        const ConstantRef c = builder.AddConstant("c", {3}, {1.5f, -2, 3});
        builder.BeginTable(7, "body");
        builder.AddLayer("A").Online(x).Offline(c).Output(t);
        builder.NextSegment(9);
        builder.BeginTable(9);
        builder.AddLayer("B").Online(t).Output(y).Workspace(12);
        model_ = builder.Build();
        SaveModel(model_, directory_ / "net");
    }
    ~ModelFile() override { fs::remove_all(directory_); }

    std::string Read(const char* name) const
    {
        std::ifstream stream(directory_ / name, std::ios::binary);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    void Write(const char* name, const std::string& content) const
    {
        std::ofstream(directory_ / name, std::ios::binary) << content;
    }
    // Replaces a piece of the manifest and expects the load to name the file and the field.
    void ExpectRefusal(const std::string& from, const std::string& to, const std::string& message,
                       const char* file = "net.json") const
    {
        SCOPED_TRACE(from + " -> " + to);
        const std::string good = Read("net.json");
        std::string text = good;
        const size_t at = text.find(from);
        ASSERT_NE(at, std::string::npos) << text;
        Write("net.json", text.replace(at, from.size(), to));
        ExpectError(file, message);
        Write("net.json", good);
    }
    void ExpectError(const char* file, const std::string& message) const
    {
        try {
            LoadModel(directory_ / "net");
            ADD_FAILURE() << "loaded without complaint";
        } catch (const ModelFileError& error) {
            EXPECT_THAT(error.what(), AllOf(HasSubstr(file), HasSubstr(message)));
        }
    }

    fs::path directory_;
    Model model_;
};

TEST_F(ModelFile, RoundTrip)
{
    for (const char* name : {"net", "net.json", "net.bin"}) {
        const Model loaded = LoadModel(directory_ / name);
        ASSERT_EQ(loaded.bytes.size(), model_.bytes.size());
        EXPECT_EQ(std::memcmp(loaded.bytes.data(), model_.bytes.data(), model_.bytes.size()), 0);
        EXPECT_EQ(loaded.inputs, model_.inputs);
        EXPECT_EQ(loaded.outputs, model_.outputs);
        EXPECT_EQ(loaded.tables, model_.tables);
        EXPECT_EQ(loaded.tables[0].next, 9u);
        EXPECT_EQ(loaded.tables[1].next, std::nullopt);
        EXPECT_EQ(loaded.constants, model_.constants);
        EXPECT_EQ(loaded.scratchSize, model_.scratchSize);
        EXPECT_EQ(loaded.maxBatch, 3u);
    }
}

TEST_F(ModelFile, SavesOverAnOldPairAndLeavesNothingAside)
{
    Model other = model_;
    other.bytes.data()[0] = std::byte{0x7f};
    SaveModel(other, directory_ / "net.json");
    EXPECT_EQ(LoadModel(directory_ / "net").bytes.data()[0], std::byte{0x7f});
    size_t files = 0;
    for (const auto& entry : fs::directory_iterator(directory_)) {
        files += entry.is_regular_file() ? 1 : 0;
    }
    EXPECT_EQ(files, 2u);
}

TEST_F(ModelFile, NamesTheDamagedField)
{
    ExpectRefusal("\"formatVersion\": 1", "\"formatVersion\": 2", "field formatVersion is 2, this program reads 1");
    ExpectRefusal("opkit-model", "something", "field format is not");
    ExpectRefusal("\"maxBatch\": 3", "\"maxBatch\": -3", "field maxBatch is not a 32-bit unsigned number");
    ExpectRefusal("\"scratchSize\"", "\"scratch\"", "field scratchSize is missing");
    ExpectRefusal("\"strideBytes\": 16", "\"strideBytes\": 15", "field inputs[0].strideBytes");
    ExpectRefusal("\"name\": \"y\"", "\"name\": 5", "field outputs[0].name is not a string");
    ExpectRefusal("{", "[{", "no JSON at byte");
    ExpectRefusal("\"maxBatch\": 3", "\"maxBatch\": 1e999", "a number does not fit");
    ExpectRefusal("\"offset\": 0", "\"offset\": 16777216", "field constants[0].offset: bytes 16777216 to 16777228");
    ExpectRefusal("\"next\": 9", "\"next\": 8", "field tables[0].next is 8, which no table has as its segmentId");
    ExpectRefusal("\"next\": 9", "\"next\": \"9\"", "field tables[0].next is not a 32-bit unsigned number");
    const std::string table = "\"layerTableOffset\": " + std::to_string(model_.tables[1].layerTableOffset);
    const std::string end = "\"layerTableOffset\": " + std::to_string(model_.bytes.size());
    ExpectRefusal(table, end, "tables[1].layerTableOffset leads: layer table: ", "net.bin");
}

TEST_F(ModelFile, NoticesADamagedBuffer)
{
    const std::string good = Read("net.bin");
    std::string bad = good;
    bad[100] ^= 1;
    Write("net.bin", bad);
    ExpectError("net.bin", "CRC-32");
    Write("net.bin", good.substr(0, good.size() - 1));
    ExpectError("net.bin", "differs from byte " + std::to_string(good.size() - 1));
    fs::remove(directory_ / "net.bin");
    ExpectError("net.bin", "cannot be opened");
    fs::remove(directory_ / "net.json");
    ExpectError("net.json", "cannot be opened");
}

// A file that is never read does not cost what it claims to hold.
TEST_F(ModelFile, ReadsRegularFilesOfTheRightSizeOnly)
{
    fs::resize_file(directory_ / "net.bin", uint64_t{40} << 30);
    ExpectError("net.bin", "has 42949672960 bytes, field bufferSize of net.json says");
    fs::remove(directory_ / "net.bin");
    ASSERT_EQ(mkfifo((directory_ / "net.bin").c_str(), 0600), 0);
    ExpectError("net.bin", "is not a regular file");
    fs::remove(directory_ / "net.bin");
    fs::create_symlink("/dev/zero", directory_ / "net.bin");
    ExpectError("net.bin", "is not a regular file");
    fs::resize_file(directory_ / "net.json", uint64_t{40} << 30);
    ExpectError("net.json", "has 42949672960 bytes, a manifest has up to 64 MiB");
    fs::remove(directory_ / "net.json");
    fs::create_directory(directory_ / "net.json");
    ExpectError("net.json", "is not a regular file");
}

TEST_F(ModelFile, RefusesAPlaceItCannotWrite)
{
    EXPECT_THROW(SaveModel(model_, directory_ / "missing" / "net"), ModelFileError);
}

TEST(Crc32Test, CheckValue)
{
    const std::string text = "123456789";
    EXPECT_EQ(Crc32(std::as_bytes(std::span(text))), 0xcbf43926u);
    EXPECT_EQ(Crc32({}), 0u);
}

}  // namespace
