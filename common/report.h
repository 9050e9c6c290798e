// Failure messages. They go to standard output and open with the name and line of the function that reports.
#ifndef OPKIT_COMMON_REPORT_H
#define OPKIT_COMMON_REPORT_H

namespace opkit {

// The place in whose name a message is printed.
struct Caller {
    const char* function;
    int line;
};

// The function that calls; as a default argument, the function that calls the one with the default.
constexpr Caller Here(const char* function = __builtin_FUNCTION(), int line = __builtin_LINE())
{
    return {function, line};
}

// Prints "[function:line]" and the formatted text in one piece.
void Report(Caller caller, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace opkit

#endif  // OPKIT_COMMON_REPORT_H
