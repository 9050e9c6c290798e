// The attribute records as data: for every operator of the table, the fields behind the head of its block.
#ifndef OPKIT_MODELKIT_ATTRIBUTE_FIELDS_H
#define OPKIT_MODELKIT_ATTRIBUTE_FIELDS_H

#include <cstdint>
#include <span>
#include <string_view>

namespace opkit::modelkit {

enum class FieldType {
    kU8,
    kU32,
    kI32,
    kU64,
    kI64,
    kF32,
    kText,    // a string in an array of chars; size is the array's
    kBytes,   // an array of bytes; size is the array's
    kStrides  // StrideRecords; the operator writes them
};

// A code that a field may hold, such as OPKIT_BINARY_ADD.
struct FieldCode {
    int64_t value = 0;
    std::string_view name;
};

struct AttributeField {
    std::string_view name;  // as in the record
    FieldType type = FieldType::kU32;
    bool isArray = false;
    uint32_t offset = 0;  // from the block's start
    uint32_t size = 0;    // bytes of all entries
    uint32_t count = 1;   // entries
    std::span<const FieldCode> codes = {};
};

struct AttributeRecord {
    std::string_view operatorName;  // as layers name it
    std::string_view recordName;    // the type in include/opkit/attributes; LayerAttrHead where there are no attributes
    uint32_t size = 0;              // bytes of the record, the head included
    std::span<const AttributeField> fields;
};

// One entry per row of the operator table, in its order.
std::span<const AttributeRecord> AttributeRecords();

// Null for a name that is not in the table.
const AttributeRecord* FindAttributeRecord(std::string_view operatorName);

}  // namespace opkit::modelkit

#endif  // OPKIT_MODELKIT_ATTRIBUTE_FIELDS_H
