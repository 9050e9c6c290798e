// The operator table. A layer's operator name is the whole key.
//
// The three box stages share one function, which tells them apart by an attribute; the functions that bear the rows'
// own names exist and are exported, but no row leads to them.

#include <cstring>

#include "opkit/helpers.h"
#include "opkit/operators.h"

namespace {

struct OperatorRow {
    const char* name;
    ForwardFunc forward;
};

constexpr OperatorRow kOperators[] = {
#define OPKIT_OPERATOR(name, forward, record, check) {#name "OpkitForward", forward##OpkitForward},
#include "opkit/operators.def"
};

// Most names differ in their first letter, which takes no call to see.
bool SameName(const char* a, const char* b)
{
    return a[0] == b[0] && std::strcmp(a, b) == 0;
}

}  // namespace

ForwardFunc GetForwardFunc(const char* name)
{
    if (name == nullptr) {
        return nullptr;
    }
    for (const OperatorRow& row : kOperators) {
        if (SameName(row.name, name)) {
            return row.forward;
        }
    }
    return nullptr;
}
