// docs/model-buffer.md tells the truth: its byte maps against the records, its dump against a model that is built here.

#include <gtest/gtest.h>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "modelkit/model_builder.h"
#include "opkit/opkit.h"

namespace {

using namespace opkit::modelkit;

std::vector<std::string> PageLines()
{
    std::ifstream stream(std::filesystem::path(OPKIT_SOURCE_DIR) / "docs/model-buffer.md");
    EXPECT_TRUE(stream);
    std::vector<std::string> lines;
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

using Field = std::pair<size_t, size_t>;  // offset, width
struct Record {
    size_t size;
    std::map<std::string, Field> fields;
};

std::pair<std::string, Field> MakeField(const char* name, size_t offset, size_t width)
{
    return {name, {offset, width}};
}

#define FIELD(record, field) MakeField(#field, offsetof(record, field), sizeof(std::declval<record>().field))

const std::map<std::string, Record>& Records()
{
    static const std::map<std::string, Record> records = {
        {"LayerRecord",
         {sizeof(LayerRecord),
          {FIELD(LayerRecord, layerId), FIELD(LayerRecord, nameOffset), FIELD(LayerRecord, nameSize),
           FIELD(LayerRecord, bufOffset), FIELD(LayerRecord, bufSize), FIELD(LayerRecord, attrOffset),
           FIELD(LayerRecord, attrSize), FIELD(LayerRecord, inputNum), FIELD(LayerRecord, inputTableOffset),
           FIELD(LayerRecord, outputNum), FIELD(LayerRecord, outputTableOffset)}}},
        {"TensorRecord",
         {sizeof(TensorRecord),
          {FIELD(TensorRecord, memKind), FIELD(TensorRecord, memIndex), FIELD(TensorRecord, size),
           FIELD(TensorRecord, strideIndex), FIELD(TensorRecord, shapeOffset), FIELD(TensorRecord, shapeSize)}}},
        {"LayerAttrHead",
         {sizeof(LayerAttrHead),
          {FIELD(LayerAttrHead, offlineOffset), FIELD(LayerAttrHead, offlineShape),
           FIELD(LayerAttrHead, offlineInputNum), FIELD(LayerAttrHead, inputFlags)}}},
        {"ForwardParam",
         {sizeof(ForwardParam),
          {FIELD(ForwardParam, inputs), FIELD(ForwardParam, inputNum), FIELD(ForwardParam, outputs),
           FIELD(ForwardParam, outputNum), FIELD(ForwardParam, opkitBuf), FIELD(ForwardParam, opkitBufSize),
           FIELD(ForwardParam, attr), FIELD(ForwardParam, attrSize), FIELD(ForwardParam, model),
           FIELD(ForwardParam, modelSize), FIELD(ForwardParam, dumpHook), FIELD(ForwardParam, profiling),
           FIELD(ForwardParam, stopFlag), FIELD(ForwardParam, segId), FIELD(ForwardParam, name),
           FIELD(ForwardParam, layerId)}}},
        {"TensorInfo",
         {sizeof(TensorInfo),
          {FIELD(TensorInfo, reserved), FIELD(TensorInfo, stride), FIELD(TensorInfo, batch), FIELD(TensorInfo, dimNum),
           FIELD(TensorInfo, shape), FIELD(TensorInfo, data), FIELD(TensorInfo, size)}}},
        {"ModelOffsets",
         {sizeof(ModelOffsets), {FIELD(ModelOffsets, layerTableOffset), FIELD(ModelOffsets, layerTableSize)}}},
        {"DumpHook",
         {sizeof(DumpHook),
          {FIELD(DumpHook, dumpFunc), FIELD(DumpHook, layerIds), FIELD(DumpHook, layerIdNum), FIELD(DumpHook, dumpAll),
           FIELD(DumpHook, record.data), FIELD(DumpHook, record.size), FIELD(DumpHook, record.stride),
           FIELD(DumpHook, record.layerId), FIELD(DumpHook, record.outputIndex)}}},
        {"ProfilingBuffer", {sizeof(ProfilingBuffer), {FIELD(ProfilingBuffer, slots), FIELD(ProfilingBuffer, size)}}},
        {"ProfilingSlot",
         {sizeof(ProfilingSlot),
          {FIELD(ProfilingSlot, slotIndex), FIELD(ProfilingSlot, startTime), FIELD(ProfilingSlot, endTime)}}},
    };
    return records;
}

TEST(ModelBufferPage, ByteMapsAgreeWithTheRecords)
{
    std::map<std::string, Record> shown;
    std::string current;
    for (const std::string& line : PageLines()) {
        char name[64];
        size_t offset = 0;
        size_t width = 0;
        if (std::sscanf(line.c_str(), "### `%63[^`]`, %zu bytes", name, &width) == 2) {
            current = name;
            shown[current].size = width;
        } else if (std::sscanf(line.c_str(), "| %zu | %zu | `%63[^`]` |", &offset, &width, name) == 3) {
            shown[current].fields[name] = {offset, width};
        }
    }
    ASSERT_EQ(shown.size(), Records().size());
    for (const auto& [name, record] : Records()) {
        EXPECT_EQ(shown[name].size, record.size) << name;
        EXPECT_EQ(shown[name].fields, record.fields) << name;
    }
}

// One or two spaces, two hexadecimal digits, and nothing that makes a longer word of them.
bool IsByte(const std::string& line, size_t at)
{
    const auto hex = [&](size_t i) {
        return i < line.size() && std::isxdigit(static_cast<unsigned char>(line[i])) != 0;
    };
    if (at + 1 >= line.size() || line[at] != ' ') {
        return false;
    }
    at += line[at + 1] == ' ' ? 2 : 1;
    return hex(at) && hex(at + 1) && (at + 2 >= line.size() || line[at + 2] == ' ');
}

TEST(ModelBufferPage, DumpShowsTheModelItDescribes)
{
    ModelBuilder builder;
    const TensorRef x = builder.AddInput({"x", {2, 3}, 16});
    const TensorRef y = builder.AddOutput({"y", {2, 3}, 16});
    const ConstantRef step = builder.AddConstant("step", {3}, {10, 20, 30});
    BinaryMathAttr attr = {};
    attr.mathType = OPKIT_BINARY_ADD;
    builder.AddLayer("BinaryMathOpkitForward").Online(x).Offline(step).Output(y).Attr(attr);
    const Model model = builder.Build();

    std::vector<uint8_t> shown(model.bytes.size(), 0);
    size_t end = 0;
    for (const std::string& line : PageLines()) {
        if (line.size() < 8 || line.find_first_not_of("0123456789abcdef") < 8) {
            continue;
        }
        end = std::stoul(line, nullptr, 16);
        size_t byte = end;
        for (size_t at = 8; IsByte(line, at); at += 3, ++byte) {
            at += line[at + 1] == ' ' ? 1 : 0;
            ASSERT_LT(byte, shown.size());
            shown[byte] = static_cast<uint8_t>(std::stoul(line.substr(at + 1, 2), nullptr, 16));
        }
    }
    EXPECT_EQ(end, model.bytes.size());
    for (size_t i = 0; i < shown.size(); ++i) {
        EXPECT_EQ(shown[i], static_cast<uint8_t>(model.bytes.data()[i])) << "byte " << i;
    }
}

}  // namespace
