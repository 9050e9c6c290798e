// The names of the operator table, for tests that must have met every operator.
#ifndef OPKIT_TESTS_SUPPORT_OPERATOR_NAMES_H
#define OPKIT_TESTS_SUPPORT_OPERATOR_NAMES_H

#include <map>
#include <set>
#include <string>

namespace opkit::test {

inline std::set<std::string> OperatorNames()
{
    return {
#define OPKIT_OPERATOR(name, forward, record, check) #name "OpkitForward",
#include "opkit/operators.def"
    };
}

template <class Value>
std::set<std::string> KeysOf(const std::map<std::string, Value>& map)
{
    std::set<std::string> keys;
    for (const auto& entry : map) {
        keys.insert(entry.first);
    }
    return keys;
}

}  // namespace opkit::test

#endif  // OPKIT_TESTS_SUPPORT_OPERATOR_NAMES_H
