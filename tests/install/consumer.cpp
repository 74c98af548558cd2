// A host program built against the installed library: traces one line and
// checks that it reaches the sink in the trace line format.
#include <cstdio>
#include <cstring>
#include <regex>
#include <string>

#include "rtframework.h"

namespace {
std::string g_line;
void Capture(const char* aLine) { g_line = aLine; }
}  // namespace

int main() {
    RtSetDebugOutputSink(&Capture);
    RT_INFO_TRACE("consumer, hello. n=" << 42);
    RtSetDebugOutputSink(nullptr);
    std::regex format(
        R"(\[\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3} pid=\d+ tid=\d+\] Info:consumer, hello\. n=42\n)");
    if (!std::regex_match(g_line, format)) {
        std::fprintf(stderr, "unexpected line: %s", g_line.c_str());
        return 1;
    }
    std::printf("consumer ok: %s", g_line.c_str());
    return 0;
}
