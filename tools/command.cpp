#include "tools/command.h"

#include <algorithm>
#include <cstdio>
#include <numeric>

namespace opkit::tools {
namespace {

// Letters to insert, drop or replace, or neighbours to exchange, to make one word of the other.
size_t Edits(const std::string& a, const std::string& b)
{
    std::vector<size_t> before;
    std::vector<size_t> above(b.size() + 1);
    std::iota(above.begin(), above.end(), size_t{0});
    for (size_t i = 1; i <= a.size(); ++i) {
        std::vector<size_t> row = {i};
        for (size_t j = 1; j <= b.size(); ++j) {
            size_t edits = std::min({above[j] + 1, row[j - 1] + 1, above[j - 1] + (a[i - 1] == b[j - 1] ? 0 : 1)});
            if (i > 1 && j > 1 && a[i - 1] == b[j - 2] && a[i - 2] == b[j - 1]) {
                edits = std::min(edits, before[j - 2] + 1);
            }
            row.push_back(edits);
        }
        before = std::exchange(above, std::move(row));
    }
    return above.back();
}

}  // namespace

std::string Nearest(const std::string& word, const std::vector<std::string>& words)
{
    std::string nearest;
    size_t least = std::max<size_t>(word.size() / 3, 1) + 1;
    for (const std::string& candidate : words) {
        const bool begins = word.size() > 2 && candidate.starts_with(word);
        const size_t edits = begins ? 1 : Edits(word, candidate);
        if (edits < least) {
            least = edits;
            nearest = candidate;
        }
    }
    return nearest;
}

void PrintError(const std::string& text)
{
    std::fputs(text.c_str(), stderr);
    std::fflush(stderr);
}

}  // namespace opkit::tools
