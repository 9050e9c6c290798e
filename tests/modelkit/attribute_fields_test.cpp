#include "modelkit/attribute_fields.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <set>

#include "opkit/opkit.h"
#include "tests/support/operator_names.h"

namespace {

using namespace opkit::modelkit;
namespace fs = std::filesystem;

std::string TextOf(const fs::path& file)
{
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

// Calls `visit` with the groups of every match in every attribute header.
template <class Visit>
void ForEachInHeaders(const std::regex& pattern, Visit visit)
{
    for (const auto& entry : fs::directory_iterator(fs::path(OPKIT_SOURCE_DIR) / "include/opkit/attributes")) {
        const std::string text = TextOf(entry.path());
        for (std::sregex_iterator match(text.begin(), text.end(), pattern), end; match != end; ++match) {
            visit(*match);
        }
    }
}

std::map<std::string, const AttributeRecord*> RecordsByName()
{
    std::map<std::string, const AttributeRecord*> records;
    for (const AttributeRecord& record : AttributeRecords()) {
        records.emplace(record.recordName, &record);
    }
    return records;
}

const AttributeField* FindField(const AttributeRecord& record, std::string_view name)
{
    for (const AttributeField& field : record.fields) {
        if (field.name == name) {
            return &field;
        }
    }
    return nullptr;
}

TEST(AttributeFields, OneEntryPerRowOfTheOperatorTable)
{
    std::set<std::string> names;
    for (const AttributeRecord& record : AttributeRecords()) {
        EXPECT_NE(GetForwardFunc(std::string(record.operatorName).c_str()), nullptr) << record.operatorName;
        EXPECT_TRUE(names.emplace(record.operatorName).second) << record.operatorName << " stands twice";
        EXPECT_EQ(FindAttributeRecord(record.operatorName), &record);
    }
    EXPECT_EQ(names, opkit::test::OperatorNames());
    EXPECT_EQ(FindAttributeRecord("DetectionOutputOpkitForward"), nullptr);
    EXPECT_EQ(FindAttributeRecord(""), nullptr);
}

TEST(AttributeFields, HasEveryFieldWhoseOffsetAHeaderStates)
{
    const auto records = RecordsByName();
    int fields = 0;
    // A member of a member, such as inputStrides[2].count, stands for its outermost one.
    ForEachInHeaders(std::regex(R"(OPKIT_OFFSET\((\w+Attr), (\w+), (\d+)\))"), [&](const std::smatch& match) {
        SCOPED_TRACE(match.str());
        const auto record = records.find(match[1]);
        ASSERT_NE(record, records.end());
        const AttributeField* const field = FindField(*record->second, match[2].str());
        ASSERT_NE(field, nullptr);
        EXPECT_EQ(field->offset, std::stoul(match[3]));
        ++fields;
    });
    EXPECT_GT(fields, 150);
}

TEST(AttributeFields, HasTheSizesThatTheHeadersState)
{
    const auto records = RecordsByName();
    size_t sizes = 0;
    ForEachInHeaders(std::regex(R"(OPKIT_SIZE\((\w+Attr), (\d+)\))"), [&](const std::smatch& match) {
        SCOPED_TRACE(match.str());
        const auto record = records.find(match[1]);
        ASSERT_NE(record, records.end());
        EXPECT_EQ(record->second->size, std::stoul(match[2]));
        ++sizes;
    });
    EXPECT_EQ(sizes + 1, records.size());  // the head, of those without attributes
}

TEST(AttributeFields, HasEveryCodeOfTheHeaders)
{
    std::set<std::string> known;
    for (const AttributeRecord& record : AttributeRecords()) {
        for (const AttributeField& field : record.fields) {
            for (const FieldCode& code : field.codes) {
                known.emplace(code.name);
            }
        }
    }
    ForEachInHeaders(std::regex(R"(\n    (OPKIT_\w+) = -?\d+)"),
                     [&](const std::smatch& match) { EXPECT_EQ(known.count(match[1]), 1u) << match[1]; });
    EXPECT_EQ(FindField(*FindAttributeRecord("BinaryMathOpkitForward"), "mathType")->codes[1].name, "OPKIT_BINARY_SUB");
    EXPECT_EQ(FindField(*FindAttributeRecord("UniqueOpkitForward"), "axis")->codes[0].value, -4);
}

TEST(AttributeFields, KnowsTypes)
{
    const auto typeOf = [](const char* operatorName, const char* field) {
        return FindField(*FindAttributeRecord(operatorName), field)->type;
    };
    EXPECT_EQ(typeOf("GemmOpkitForward", "alpha"), FieldType::kF32);
    EXPECT_EQ(typeOf("GemmOpkitForward", "transA"), FieldType::kU8);
    EXPECT_EQ(typeOf("GemmOpkitForward", "inputStrides"), FieldType::kStrides);
    EXPECT_EQ(typeOf("LoopOpkitForward", "tripCount"), FieldType::kI64);
    EXPECT_EQ(typeOf("LoopOpkitForward", "outputTotal"), FieldType::kU64);
    EXPECT_EQ(typeOf("LoopOpkitForward", "condition"), FieldType::kI32);
    EXPECT_EQ(typeOf("CustomOpkitForward", "funcName"), FieldType::kText);
    EXPECT_EQ(typeOf("CustomOpkitForward", "params.fixed"), FieldType::kBytes);
    EXPECT_EQ(typeOf("PadOpkitForward", "padsAttr"), FieldType::kI32);
    const AttributeField& pads = *FindField(*FindAttributeRecord("PadOpkitForward"), "padsAttr");
    EXPECT_TRUE(pads.isArray);
    EXPECT_EQ(pads.count, 20u);
    EXPECT_EQ(pads.size, 80u);
}

TEST(AttributeFields, NeitherOverlapNorLeaveTheRecord)
{
    for (const AttributeRecord& record : AttributeRecords()) {
        uint32_t end = sizeof(LayerAttrHead);
        for (const AttributeField& field : record.fields) {
            SCOPED_TRACE(std::string(record.recordName) + "." + std::string(field.name));
            EXPECT_GE(field.offset, end);
            end = field.offset + field.size;
        }
        EXPECT_LE(end, record.size);
    }
}

}  // namespace
