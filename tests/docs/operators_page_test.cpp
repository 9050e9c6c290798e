// docs/operators.md keeps up with the records: every operator of the table has a section, and the section's table has
// every attribute at its byte, with its type.

#include <gtest/gtest.h>

#include <cstddef>
#include <fstream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "modelkit/attribute_fields.h"
#include "opkit/opkit.h"

namespace {

using namespace opkit::modelkit;

struct Row {
    std::string byte, type, field;
};

struct Section {
    std::string name;
    std::vector<std::string> records;  // of its "Record:" lines, without back-ticks
    std::vector<Row> rows;
    std::set<std::string> operators;  // first cells of its tables that are an operator's full name
};

std::string Trimmed(const std::string& text, const char* dropped = " `")
{
    const size_t begin = text.find_first_not_of(dropped);
    return begin == std::string::npos ? "" : text.substr(begin, text.find_last_not_of(dropped) - begin + 1);
}

std::vector<std::string> Split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(Trimmed(part));
    }
    return parts;
}

std::vector<Section> ReadPage()
{
    std::ifstream page(std::string(OPKIT_SOURCE_DIR) + "/docs/operators.md");
    EXPECT_TRUE(page);
    std::vector<Section> sections;
    bool inFields = false;
    for (std::string line; std::getline(page, line);) {
        if (line.starts_with("## ")) {
            sections.push_back({line.substr(3), {}, {}, {}});
        }
        if (sections.empty()) {
            continue;
        }
        Section& section = sections.back();
        if (line.starts_with("Record: ")) {
            section.records.push_back(Trimmed(line.substr(8)));
        }
        inFields = line.starts_with("| Byte |") || (inFields && line.starts_with("|"));
        if (!line.starts_with("|")) {
            continue;
        }
        const std::vector<std::string> cells = Split(line, '|');
        if (inFields && !cells[1].starts_with("-") && cells[1] != "Byte") {
            EXPECT_EQ(cells.size(), 5u) << line;
            section.rows.push_back({cells[1], cells.at(2), cells.at(3)});
        }
        for (const std::string& name : Split(cells[1], ',')) {
            section.operators.insert(Trimmed(name));
        }
    }
    return sections;
}

std::string TypeText(const AttributeField& field)
{
    static const std::map<FieldType, std::string> names = {
        {FieldType::kU8, "u8"},     {FieldType::kU32, "u32"},  {FieldType::kI32, "i32"},
        {FieldType::kU64, "u64"},   {FieldType::kI64, "i64"},  {FieldType::kF32, "f32"},
        {FieldType::kText, "char"}, {FieldType::kBytes, "u8"}, {FieldType::kStrides, "StrideRecord"},
    };
    return names.at(field.type) + (field.isArray ? "[" + std::to_string(field.count) + "]" : "");
}

// One form of Custom's parameters stands over the other; the fields of both are on the page.
constexpr AttributeField kSizedForm[] = {
    {"params.sized.sizedSize", FieldType::kU32, false, offsetof(CustomAttr, params.sized.sizedSize), 4, 1, {}},
    {"params.sized.marker", FieldType::kU32, false, offsetof(CustomAttr, params.sized.marker), 4, 1, {}},
    {"params.sized.params",
     FieldType::kBytes,
     true,
     offsetof(CustomAttr, params.sized.params),
     72,
     sizeof(CustomSizedParams::params),
     {}},
};

std::map<std::string, AttributeField> FieldsOf(const AttributeRecord& record)
{
    std::map<std::string, AttributeField> fields;
    for (const AttributeField& field : record.fields) {
        fields.emplace(field.name, field);
    }
    if (record.recordName == "CustomAttr") {
        for (const AttributeField& field : kSizedForm) {
            fields.emplace(field.name, field);
        }
    }
    return fields;
}

// The record of a section; null where there is none or the page names an unknown one.
const AttributeRecord* RecordOf(const Section& section)
{
    for (const AttributeRecord& record : AttributeRecords()) {
        if (section.records.size() == 1 && record.recordName == section.records[0]) {
            return &record;
        }
    }
    return nullptr;
}

TEST(OperatorsPage, TablesAgreeWithTheRecords)
{
    size_t rows = 0;
    for (const Section& section : ReadPage()) {
        SCOPED_TRACE(section.name);
        ASSERT_EQ(section.records.size(), 1u);
        if (section.records[0] == "none") {
            EXPECT_TRUE(section.rows.empty());
            continue;
        }
        const AttributeRecord* const record = RecordOf(section);
        ASSERT_NE(record, nullptr) << section.records[0];
        std::map<std::string, AttributeField> fields = FieldsOf(*record);
        for (const Row& row : section.rows) {
            SCOPED_TRACE(row.field);
            const auto field = fields.find(row.field);
            ASSERT_NE(field, fields.end()) << "no such field, or a second time";
            EXPECT_EQ(row.byte, std::to_string(field->second.offset));
            EXPECT_EQ(row.type, TypeText(field->second));
            fields.erase(field);
            ++rows;
        }
        for (const auto& [name, field] : fields) {
            ADD_FAILURE() << name << " at byte " << field.offset << " is missing";
        }
    }
    EXPECT_GT(rows, 150u);
}

TEST(OperatorsPage, EveryOperatorOfTheTableHasASection)
{
    const std::vector<Section> sections = ReadPage();
    std::set<std::string> used;
    for (const AttributeRecord& record : AttributeRecords()) {
        const std::string fullName(record.operatorName);
        // Three rows lead to one function, which has no row of its own.
        const bool isDetection = GetForwardFunc(fullName.c_str()) == DetectionOutputOpkitForward;
        const std::string name =
            isDetection ? "DetectionOutput" : fullName.substr(0, fullName.size() - std::string("OpkitForward").size());
        std::vector<const Section*> found;
        for (const Section& section : sections) {
            if (section.name == name || section.operators.count(fullName) != 0) {
                found.push_back(&section);
            }
        }
        ASSERT_EQ(found.size(), 1u) << fullName;
        const std::string expected = record.fields.empty() ? "none" : std::string(record.recordName);
        EXPECT_EQ(found[0]->records, std::vector<std::string>{expected}) << fullName;
        used.insert(found[0]->name);
    }
    EXPECT_EQ(used.size(), sections.size()) << "a section that no operator leads to, or two of one name";
}

}  // namespace
