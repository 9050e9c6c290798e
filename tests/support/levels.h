// Runs a test body at every instruction-set level that this machine has.
#ifndef OPKIT_TESTS_SUPPORT_LEVELS_H
#define OPKIT_TESTS_SUPPORT_LEVELS_H

#include <gtest/gtest.h>

#include <utility>

#include "kernels/level.h"

namespace opkit::test {

// Chooses a level while it lives.
class LevelScope {
public:
    explicit LevelScope(Level level) : previous_(ActiveLevel()) { OverrideLevel(level); }
    ~LevelScope() { OverrideLevel(previous_); }
    LevelScope(const LevelScope&) = delete;
    LevelScope& operator=(const LevelScope&) = delete;

private:
    Level previous_;
};

template <class Body>
void ForEachLevel(Body&& body)
{
    for (int level = 0; level <= static_cast<int>(DetectedLevel()); ++level) {
        const LevelScope scope(static_cast<Level>(level));
        SCOPED_TRACE(LevelName(static_cast<Level>(level)));
        body(static_cast<Level>(level));
    }
}

}  // namespace opkit::test

#endif  // OPKIT_TESTS_SUPPORT_LEVELS_H
