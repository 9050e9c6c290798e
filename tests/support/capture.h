// Standard output as text: what the library printed while a CaptureStdout lived.
//
//     CaptureStdout capture;
//     AcosOpkitForward(&param);
//     EXPECT_EQ(NormalizeMessages(capture.Stop()), "[AcosOpkitForward:#]ParseInputInfo failed.\n\n");
#ifndef OPKIT_TESTS_SUPPORT_CAPTURE_H
#define OPKIT_TESTS_SUPPORT_CAPTURE_H

#include <string>
#include <string_view>

namespace opkit::test {

class CaptureStdout {
public:
    CaptureStdout();
    ~CaptureStdout();
    CaptureStdout(const CaptureStdout&) = delete;
    CaptureStdout& operator=(const CaptureStdout&) = delete;

    // Ends the capture and gives the text; an empty text when called again.
    std::string Stop();

private:
    int saved_ = -1;
    int file_ = -1;
};

// Turns every "[Name:123]" into "[Name:#]", so that line numbers do not count.
std::string NormalizeMessages(std::string_view text);

// How a reference twin reports: prints "[function:#]" and the text to standard output.
void RefReport(const char* function, const char* format, ...) __attribute__((format(printf, 2, 3)));

}  // namespace opkit::test

#endif  // OPKIT_TESTS_SUPPORT_CAPTURE_H
