// The same from C++: through a request that is refused, and an operator found by its name.
#include <opkit/opkit.h>
#include <cstdio>

int main()
{
    const ForwardFunc neg = GetForwardFunc("NegOpkitForward");
    ForwardParam request{};
    std::printf("C++ %#x %d %#x\n", OpkitGetVersion(), neg == NegOpkitForward ? 1 : 0, OpkitForward(&request));
    return 0;
}
