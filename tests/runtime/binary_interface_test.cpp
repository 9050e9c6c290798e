// The shared library as a file: what it exports, what it needs, what its code contains.

#include <dlfcn.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "opkit/opkit.h"

namespace opkit {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string OutputOf(const std::string& command)
{
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    std::string text;
    std::array<char, 65536> buffer;
    size_t length = 0;
    while ((length = fread(buffer.data(), 1, buffer.size(), pipe.get())) > 0) {
        text.append(buffer.data(), length);
    }
    return text;
}

std::vector<std::string> Lines(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The operators that rows lead to, and what the file lists besides.
std::set<std::string> ListedExports()
{
    std::set<std::string> names = {
#define OPKIT_OPERATOR(name, forward, record, check) #forward "OpkitForward",
#include "opkit/operators.def"
    };
    std::ifstream file(OPKIT_EXPORTS_FILE);
    for (std::string line; std::getline(file, line);) {
        names.insert(line);
    }
    return names;
}

TEST(BinaryInterface, ExportsExactlyTheListedNames)
{
    std::set<std::string> exported;
    for (const std::string& line : Lines(OutputOf("nm -D --defined-only " OPKIT_LIBRARY_FILE))) {
        exported.insert(line.substr(line.rfind(' ') + 1));
    }
    EXPECT_EQ(exported, ListedExports());
}

TEST(BinaryInterface, EveryListedNameResolves)
{
    void* library = dlopen(OPKIT_LIBRARY_FILE, RTLD_NOW);
    ASSERT_NE(library, nullptr) << dlerror();
    for (const std::string& name : ListedExports()) {
        EXPECT_NE(dlsym(library, name.c_str()), nullptr) << name;
    }
    const auto* version = static_cast<const char**>(dlsym(library, "OPKIT_GIT_VERSION"));
    EXPECT_STREQ(*version, "Version:4ed1745");
    dlclose(library);
}

TEST(BinaryInterface, ObjectsHaveTheirSizes)
{
    struct Row {
        const char* name;
        const char* size;
    };
    const std::string symbols = OutputOf("readelf --dyn-syms -W " OPKIT_LIBRARY_FILE);
    for (const Row& row : {Row{"OPKIT_GIT_VERSION", "8 OBJECT"}, Row{"g_size", "4 OBJECT"},
                           Row{"g_curBoxNum", "1024 TLS"}, Row{"g_maxWidth", "4 TLS"}, Row{"g_maxHeight", "4 TLS"},
                           Row{"g_lowScoreThresh", "4 TLS"}, Row{"g_nmsThresh", "4 TLS"}}) {
        const std::regex entry(std::string(row.size).replace(std::string(row.size).find(' '), 1, " +") + " .* " +
                               row.name);
        EXPECT_TRUE(std::regex_search(symbols, entry)) << row.name;
    }
}

TEST(BinaryInterface, NeedsLibcAndLibmOnly)
{
    const std::string dynamic = OutputOf("readelf -d " OPKIT_LIBRARY_FILE);
    std::vector<std::string> needed;
    const std::regex entry("\\(NEEDED\\).*\\[(.*)\\]");
    for (std::sregex_iterator it(dynamic.begin(), dynamic.end(), entry), end; it != end; ++it) {
        needed.push_back((*it)[1]);
    }
    EXPECT_THAT(needed, ::testing::UnorderedElementsAre("libc.so.6", "libm.so.6"));
    EXPECT_TRUE(std::regex_search(dynamic, std::regex("SONAME.*libopkit\\.so\\.3\\]")));
}

TEST(BinaryInterface, NoConstructorRunsAtLoad)
{
    // One entry is the C runtime's own frame_dummy.
    const std::string sections = OutputOf("readelf -SW " OPKIT_LIBRARY_FILE);
    EXPECT_TRUE(std::regex_search(sections, std::regex("\\.init_array +INIT_ARRAY +\\w+ \\w+ 0*8 ")));
}

// A host with functions of the same names is never called in the library's place: no function of its own is looked up
// by the loader. The variables are, as the host may read and set them.
TEST(BinaryInterface, CallsOfItsOwnFunctionsAreBound)
{
    const std::set<std::string> listed = ListedExports();
    std::set<std::string> lookedUp;
    const std::regex entry("R_X86_64_\\w+ +[0-9a-f]+ +([A-Za-z_]\\w*)");
    for (const std::string& line : Lines(OutputOf("readelf -rW " OPKIT_LIBRARY_FILE))) {
        std::smatch match;
        if (std::regex_search(line, match, entry)) {
            lookedUp.insert(match[1]);
        }
    }
    EXPECT_TRUE(lookedUp.contains("malloc"));
    for (const std::string& name : lookedUp) {
        EXPECT_TRUE(!listed.contains(name) || name.starts_with("g_")) << name;
    }
}

// How often each instruction whose name fits occurs in the disassembly of files.
std::map<std::string, int> Instructions(const std::string& files, const std::string& name)
{
    const std::string code = OutputOf("objdump -d --no-show-raw-insn " + files);
    EXPECT_GT(code.size(), 10000u);
    const std::regex instruction("\\t(" + name + ")\\b");
    std::map<std::string, int> counts;
    for (const std::string& line : Lines(code)) {
        std::smatch match;
        if (std::regex_search(line, match, instruction)) {
            ++counts[match[1]];
        }
    }
    return counts;
}

// A product rounds before the sum takes it, and there is no x87 arithmetic. Two places may fuse: the kernels of
// products that are known to be exact, and approximations in f64 of which only certain results are kept.
TEST(BinaryInterface, NoFusedMultiplyAddAndNoX87)
{
    EXPECT_THAT(Instructions(OPKIT_LIBRARY_FILE, "f(add|sub|mul|div|ld|st|sqrt)[a-z]*"), IsEmpty());
    const std::string fused32 = "vfn?m(add|sub)\\w*[ps]s";
    EXPECT_EQ(Instructions(OPKIT_LIBRARY_FILE, fused32), Instructions(OPKIT_FUSED_OBJECTS, fused32));
    const std::string fused = "vfn?m(add|sub)\\w*";
    EXPECT_EQ(Instructions(OPKIT_LIBRARY_FILE, fused),
              Instructions(OPKIT_APPROXIMATION_OBJECTS " " OPKIT_FUSED_OBJECTS, fused));
}

// The processor that detection takes for AVX-512 without VNNI must not meet its instructions.
TEST(BinaryInterface, VnniInItsOwnObjectsOnly)
{
    const std::map<std::string, int> products = Instructions(OPKIT_LIBRARY_FILE, "vpdp\\w+");
    EXPECT_EQ(products, Instructions(OPKIT_VNNI_OBJECTS, "vpdp\\w+"));
    EXPECT_TRUE(products.contains("vpdpbusd") && products.contains("vpdpwssd"));
}

TEST(BinaryInterface, ProductRoundsBeforeTheSum)
{
    // (1 + 2^-12)^2 = 1 + 2^-11 + 2^-24 rounds to 1 + 2^-11; the fused form would keep the last term.
    float a[1] = {1.0f + 0x1p-12f};
    float c[1] = {-(1.0f + 0x1p-11f)};
    GemmArgs args = {};
    args.M = args.N = args.K = 1;
    args.alpha = args.beta = 1.0f;
    args.A = args.B = a;
    args.C = c;
    Gemm(args);
    EXPECT_EQ(c[0], 0.0f);
}

// Kernels of a level share nothing but their tables with the rest, and call nothing but libc and libm: of functions
// that several levels define, the linker would keep one for all, and that one may need more than the processor has.
TEST(BinaryInterface, KernelObjectsShareTheirTablesOnly)
{
    const std::regex table("[0-9a-f]+ [RD] opkit::(baseline|avx2|avx512|vnni|avx2_fused|avx512_fused)::k\\w+Kernels");
    const std::regex called(
        " +U (exp|log|sinh|acosh|memcpy|memmove|memset|__assert_fail|__stack_chk_fail|_GLOBAL_OFFSET_TABLE_)");
    const std::regex local("[0-9a-f]+ [bdrt] .*");
    int tables = 0;
    for (const std::string& line : Lines(OutputOf("nm -C " OPKIT_KERNEL_OBJECTS))) {
        const bool isTable = std::regex_match(line, table);
        tables += isTable ? 1 : 0;
        EXPECT_TRUE(isTable || line.empty() || line.ends_with(".o:") || std::regex_match(line, local) ||
                    std::regex_match(line, called))
            << line;
    }
    EXPECT_GE(tables, 3 * 18 + 4);
}

}  // namespace
}  // namespace opkit
