// Tracing, a sink of one's own, and reading settings from conf/kvtix.ini.
#include <cstdio>

#include "rtframework.h"

namespace {
int g_nLines = 0;
// Gets each finished line, newline included, on the tracing thread. Must not trace.
void CountLine(const char* aLine) {
    ++g_nLines;
    std::fputs(aLine, stdout);
}
}  // namespace

int main() {
    RtSetDebugOutputSink(&CountLine);
    int port = 7000;
    RT_INFO_TRACE("host, starting. port=" << port << " this=" << static_cast<void*>(&port));
    RT_WARNING_TRACE("host, cache is cold");
    RT_ASSERTE(port > 0);  // a failed assertion traces at level Error and goes on

    // Settings of one's own live beside [Trace] in conf/kvtix.ini; a missing
    // file or key gives the default.
    CRtConfigInitFile config;
    int workers = config.GetIntParam("Host", "Workers", 4);
    bool verbose = get_bool_param("Host", "Verbose", 0) != 0;
    RT_INFO_TRACE("host, configured. workers=" << workers << " verbose=" << (verbose ? 1 : 0));

    std::printf("the trace file is %s\n", GetRtTraceFileName());
    RtSetDebugOutputSink(nullptr);
    return g_nLines == 3 ? 0 : 1;
}
