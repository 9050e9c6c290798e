#include "tests/support/capture.h"

#include <sys/mman.h>
#include <unistd.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <stdexcept>

namespace opkit::test {

CaptureStdout::CaptureStdout()
{
    std::fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    file_ = memfd_create("captured-stdout", MFD_CLOEXEC);
    if (saved_ < 0 || file_ < 0 || dup2(file_, STDOUT_FILENO) < 0) {
        throw std::runtime_error("standard output cannot be captured");
    }
}

CaptureStdout::~CaptureStdout()
{
    Stop();
}

std::string CaptureStdout::Stop()
{
    if (saved_ < 0) {
        return {};
    }
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
    saved_ = -1;
    std::string text(static_cast<size_t>(lseek(file_, 0, SEEK_END)), '\0');
    const ssize_t got = pread(file_, text.data(), text.size(), 0);
    close(file_);
    text.resize(got < 0 ? 0 : static_cast<size_t>(got));
    return text;
}

std::string NormalizeMessages(std::string_view text)
{
    std::string out;
    for (size_t i = 0; i < text.size();) {
        size_t end = i;
        if (text[i] == '[') {
            size_t name = i + 1;
            while (name < text.size() && (std::isalnum(static_cast<unsigned char>(text[name])) || text[name] == '_')) {
                ++name;
            }
            if (name > i + 1 && name < text.size() && text[name] == ':') {
                size_t digit = name + 1;
                while (digit < text.size() && std::isdigit(static_cast<unsigned char>(text[digit]))) {
                    ++digit;
                }
                if (digit > name + 1 && digit < text.size() && text[digit] == ']') {
                    out += std::string(text.substr(i, name - i)) + ":#]";
                    end = digit + 1;
                }
            }
        }
        if (end == i) {
            out += text[i];
            end = i + 1;
        }
        i = end;
    }
    return out;
}

void RefReport(const char* function, const char* format, ...)
{
    std::printf("[%s:#]", function);
    va_list args;
    va_start(args, format);
    std::vprintf(format, args);
    va_end(args);
}

}  // namespace opkit::test
