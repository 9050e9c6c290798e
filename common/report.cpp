#include "common/report.h"

#include <cstdarg>
#include <cstdio>

namespace opkit {

void Report(Caller caller, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    flockfile(stdout);  // prefix and text stay together when several threads report
    std::printf("[%s:%d]", caller.function, caller.line);
    std::vprintf(format, arguments);
    funlockfile(stdout);
    va_end(arguments);
}

}  // namespace opkit
