#include "common/bounded_memory.h"

#include <gtest/gtest.h>

#include <string>

namespace opkit {
namespace {

const std::string kBefore = "abcdefgh";

struct CopyRow {
    const char* what;
    int64_t size;
    uint64_t count;
    int32_t code;
    std::string after;
};

std::string Cleared(size_t bytes)
{
    return std::string(bytes, '\0') + kBefore.substr(bytes);
}

TEST(MemcpyS, FromElsewhere)
{
    const CopyRow rows[] = {
        {"all", 8, 8, 0, "ABCDEFGH"},           {"a part", 8, 3, 0, "ABCdefgh"},
        {"nothing", 8, 0, 0, kBefore},          {"size 0", 0, 3, 34, kBefore},
        {"size 0, nothing", 0, 0, 34, kBefore}, {"negative size", -1, 3, 34, kBefore},
        {"too much", 5, 6, 162, Cleared(5)},
    };
    for (const CopyRow& row : rows) {
        SCOPED_TRACE(row.what);
        std::string memory = kBefore;
        EXPECT_EQ(memcpy_s(memory.data(), row.size, "ABCDEFGHI", row.count), row.code);
        EXPECT_EQ(memory, row.after);
    }
}

TEST(MemcpyS, NullPointers)
{
    std::string memory = kBefore;
    EXPECT_EQ(memcpy_s(nullptr, 8, memory.data(), 1), 22);
    EXPECT_EQ(memcpy_s(nullptr, 0, nullptr, 1), 34);
    EXPECT_EQ(memcpy_s(nullptr, 8, nullptr, 1), 22);
    EXPECT_EQ(memory, kBefore);
    EXPECT_EQ(memcpy_s(memory.data(), 4, nullptr, 9), 150);
    EXPECT_EQ(memory, Cleared(4));
}

TEST(MemcpyS, Overlap)
{
    std::string memory = kBefore;
    EXPECT_EQ(memcpy_s(memory.data(), 8, memory.data(), 8), 0);
    EXPECT_EQ(memory, kBefore);
    EXPECT_EQ(memcpy_s(memory.data(), 4, memory.data(), 5), 162);  // the count comes before
    EXPECT_EQ(memory, Cleared(4));

    memory = kBefore;
    EXPECT_EQ(memcpy_s(memory.data() + 1, 7, memory.data(), 2), 182);
    EXPECT_EQ(memory, std::string("a") + std::string(7, '\0'));
    memory = kBefore;
    EXPECT_EQ(memcpy_s(memory.data(), 3, memory.data() + 1, 2), 182);
    EXPECT_EQ(memory, Cleared(3));

    memory = kBefore;  // ranges that touch do not overlap
    EXPECT_EQ(memcpy_s(memory.data() + 2, 6, memory.data(), 2), 0);
    EXPECT_EQ(memory, "ababefgh");
    EXPECT_EQ(memcpy_s(memory.data(), 8, memory.data() + 4, 4), 0);
    EXPECT_EQ(memory, "efghefgh");
}

TEST(MemsetS, Codes)
{
    const CopyRow rows[] = {
        {"all", 8, 8, 0, "xxxxxxxx"},          {"a part", 8, 3, 0, "xxxdefgh"}, {"nothing", 8, 0, 0, kBefore},
        {"size 0, nothing", 0, 0, 0, kBefore}, {"size 0", 0, 1, 34, kBefore},   {"negative size", -1, 0, 34, kBefore},
        {"too much", 5, 6, 162, "xxxxxfgh"},
    };
    for (const CopyRow& row : rows) {
        SCOPED_TRACE(row.what);
        std::string memory = kBefore;
        EXPECT_EQ(memset_s(memory.data(), row.size, 'x', row.count), row.code);
        EXPECT_EQ(memory, row.after);
    }
    EXPECT_EQ(memset_s(nullptr, 0, 'x', 0), 34);
    EXPECT_EQ(memset_s(nullptr, 5, 'x', 0), 22);
    EXPECT_EQ(memset_s(nullptr, -1, 'x', 0), 34);
}

}  // namespace
}  // namespace opkit
