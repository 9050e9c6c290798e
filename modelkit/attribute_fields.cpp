// The names of records and fields come from the table of operators and from what script/generate reads in the headers;
// offsets, sizes and types come from the records themselves.

#include "modelkit/attribute_fields.h"

#include <algorithm>
#include <iterator>
#include <type_traits>
#include <utility>

#include "opkit/opkit.h"

namespace opkit::modelkit {
namespace {

template <class T>
constexpr FieldType TypeOf()
{
    using Entry = std::remove_all_extents_t<T>;
    if constexpr (std::is_same_v<Entry, char>) {
        return FieldType::kText;
    } else if constexpr (std::is_same_v<Entry, uint8_t>) {
        return std::is_array_v<T> ? FieldType::kBytes : FieldType::kU8;
    } else if constexpr (std::is_same_v<Entry, int32_t>) {
        return FieldType::kI32;
    } else if constexpr (std::is_same_v<Entry, int64_t>) {
        return FieldType::kI64;
    } else if constexpr (std::is_same_v<Entry, uint64_t>) {
        return FieldType::kU64;
    } else if constexpr (std::is_same_v<Entry, float>) {
        return FieldType::kF32;
    } else if constexpr (std::is_same_v<Entry, StrideRecord>) {
        return FieldType::kStrides;
    } else {
        static_assert(std::is_same_v<Entry, uint32_t>);
        return FieldType::kU32;
    }
}

template <class T>
constexpr AttributeField MakeField(std::string_view name, size_t offset, std::span<const FieldCode> codes = {})
{
    constexpr uint32_t count = sizeof(T) / sizeof(std::remove_all_extents_t<T>);
    return {name, TypeOf<T>(), std::is_array_v<T>, static_cast<uint32_t>(offset), sizeof(T), count, codes};
}

#define CODE(name)  \
    {               \
        name, #name \
    }
#define FIELD(Record, member, ...) \
    MakeField<decltype(std::declval<Record&>().member)>(#member, offsetof(Record, member) __VA_OPT__(, ) __VA_ARGS__)
#include "modelkit/attribute_fields.inc"
#undef CODE
#undef FIELD

// A record that is missing here is new: script/generate writes its fields.
constexpr AttributeRecord kRecords[] = {
#define OPKIT_OPERATOR(name, forward, record, check) {#name "OpkitForward", #record, sizeof(record), k##record},
#include "opkit/operators.def"
};

}  // namespace

std::span<const AttributeRecord> AttributeRecords()
{
    return kRecords;
}

const AttributeRecord* FindAttributeRecord(std::string_view operatorName)
{
    const auto found = std::find_if(std::begin(kRecords), std::end(kRecords),
                                    [&](const AttributeRecord& record) { return record.operatorName == operatorName; });
    return found == std::end(kRecords) ? nullptr : found;
}

}  // namespace opkit::modelkit
