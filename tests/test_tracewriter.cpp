// CRtTrace: the line format and its cut, the level tables of both writers,
// Destroy, and the trace and assertion macros as the library uses them.
#include <gtest/gtest.h>

#include <errno.h>

#include <ctime>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "rtdebug.h"
#include "rtos.h"
#include "trace_capture.h"

namespace {

class WriterTest : public ::testing::Test {
protected:
    static std::vector<std::string> Take() { return TraceCapture::Take(); }
    // The one line traced since the last Take(), without its stamp.
    static std::string OnlyBody() {
        std::vector<std::string> lines = Take();
        if (lines.size() != 1) {
            return "<" + std::to_string(lines.size()) + " lines>";
        }
        size_t end = lines[0].find("] ");
        return end == std::string::npos ? "<no stamp>" : lines[0].substr(end + 2);
    }

    TraceCapture m_capture;
};

const char* const kStamp = R"(\[\d\d/\d\d/\d{4} \d\d:\d\d:\d\d\.\d{3} pid=(\d+) tid=(\d+)\] )";

int g_afterAssert = 0;

int ReturnsThroughAssert(bool aOk) {
    RT_ASSERTE_RETURN(aOk, RT_ERROR_INVALID_ARG);
    ++g_afterAssert;
    return RT_OK;
}
const int kReturnsThroughAssertLine = __LINE__ - 4;

void ReturnsVoidThroughAssert(bool aOk) {
    RT_ASSERTE_RETURN_VOID(aOk);
    ++g_afterAssert;
}

}  // namespace

TEST_F(WriterTest, LineIsStampedWithLocalTimeProcessAndThread) {
    const time_t before = ::time(nullptr);
    RT_INFO_TRACE("hello " << 42);
    const time_t after = ::time(nullptr);
    uint32_t otherTid = 0;
    std::thread([&] {
        otherTid = rtos::CurrentThreadId();
        RT_WARNING_TRACE("from another thread");
    }).join();

    std::vector<std::string> lines = Take();
    ASSERT_EQ(lines.size(), 2u);
    std::smatch m;
    ASSERT_TRUE(std::regex_match(lines[0], m, std::regex(std::string(kStamp) + "Info:hello 42\n")))
        << lines[0];
    // In local time, between before and after; a second's slack on each side,
    // as the stamp and time() may read clocks a tick apart.
    bool stampedNow = false;
    for (time_t t = before - 1; t <= after + 1; ++t) {
        char now[32];
        ::strftime(now, sizeof(now), "[%m/%d/%Y %H:%M:%S.", ::localtime(&t));
        stampedNow |= lines[0].rfind(now, 0) == 0;
    }
    EXPECT_TRUE(stampedNow) << lines[0];
    EXPECT_EQ(std::stoul(m[1]), rtos::CurrentProcessId());
    EXPECT_EQ(std::stoul(m[2]), rtos::CurrentThreadId());
    ASSERT_TRUE(std::regex_match(lines[1], m, std::regex(std::string(kStamp) + "Warning:.*\n")));
    EXPECT_EQ(std::stoul(m[2]), otherTid);  // another thread stamps its own id
    EXPECT_NE(otherTid, rtos::CurrentThreadId());
}

TEST_F(WriterTest, LongTextIsCutTo1023CharactersWithoutNewline) {
    std::string text(2000, 'a');
    CRtTrace::instance()->trace_string(20, &text[0]);
    std::vector<std::string> lines = Take();
    ASSERT_EQ(lines.size(), 1u);
    const size_t body = lines[0].find("] Info:") + 7;
    EXPECT_EQ(lines[0].substr(body), std::string(1023 - body, 'a'));

    // Through a macro the recorder's 960-byte cut comes first: the line is whole.
    RT_INFO_TRACE(text);
    EXPECT_EQ(OnlyBody(), "Info:" + std::string(960, 'a') + "\n");
}

TEST_F(WriterTest, EveryLevelOfBothTablesIsWrittenWithItsName) {
    const char* const names[26] = {
        "Error", "Server",  "NA",      "NA",      "NA",   "NA",        "NA",   "NA",    "NA",
        "NA",    "Warning", "Meeting", "Session", "User", "Statistic", "NA",   "NA",    "NA",
        "NA",    "NA",      "Info",    "State",   "PDU",  "Func",      "Tick", "Detail"};
    char text[] = "x";
    for (unsigned long level = 0; level < 26; ++level) {
        CRtTrace::instance()->trace_string(level, text);
        EXPECT_EQ(OnlyBody(), std::string(names[level]) + ":x\n") << "level " << level;
    }
    CRtTrace::DiagonseInstance()->trace_string(0, text);
    EXPECT_EQ(OnlyBody(), "Diagnose:x\n");
    CRtTrace::instance()->trace_string(0, nullptr);
    EXPECT_EQ(OnlyBody(), "Error:\n");

    // The macros' levels; disabled levels are not filtered from the sinks.
    RT_ERROR_TRACE("e");
    RT_WARNING_TRACE("w");
    RT_INFO_TRACE(static_cast<const char*>(nullptr));
    RT_TRACE_AT(25, "detail " << 25);
    RT_DIAGNOSE_TRACE("diag " << 1);
    std::vector<std::string> lines = Take();
    const char* const bodies[] = {"Error:e\n", "Warning:w\n", "Info:\n", "Detail:detail 25\n",
                                  "Diagnose:diag 1\n"};
    ASSERT_EQ(lines.size(), 5u);
    for (size_t i = 0; i < 5; ++i) {
        EXPECT_EQ(lines[i].substr(lines[i].find("] ") + 2), bodies[i]);
    }

    // A level past either table has no name: the line is empty.
    CRtTrace::instance()->trace_string(26, text);
    CRtTrace::DiagonseInstance()->trace_string(1, text);
    EXPECT_EQ(Take(), std::vector<std::string>(2, ""));
}

TEST_F(WriterTest, DestroyThenTraceCreatesAFreshWriter) {
    CRtTrace::DiagonseInstance();
    CRtTrace::Destroy();
    EXPECT_EQ(OnlyBody(), "Info:CRtTrace::Destroy\n");
    RT_INFO_TRACE("after destroy");
    EXPECT_EQ(OnlyBody(), "Info:after destroy\n");
    EXPECT_EQ(GetRtTraceFileName(), CRtTrace::instance()->getfilename());
    RT_DIAGNOSE_TRACE("diagnose again");
    EXPECT_EQ(OnlyBody(), "Diagnose:diagnose again\n");

    // Destroying twice in a row is harmless.
    CRtTrace::Destroy();
    CRtTrace::Destroy();
    EXPECT_EQ(Take().size(), 2u);
}

TEST_F(WriterTest, AssertionsNameFileLineAndExpressionAndReturn) {
    const int flags = 4;
    const int line = __LINE__ + 1;
    RT_ASSERTE(RT_BIT_DISABLED(flags, 0x4));
    EXPECT_EQ(OnlyBody(), std::string("Error:") + __FILE__ + ":" + std::to_string(line) +
                              " Assert failed: RT_BIT_DISABLED(flags, 0x4)\n");
    RT_ASSERTE(flags == 4);  // holds: no line
    EXPECT_TRUE(Take().empty());

    EXPECT_EQ(ReturnsThroughAssert(false), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(g_afterAssert, 0);
    EXPECT_EQ(OnlyBody(), std::string("Error:") + __FILE__ + ":" +
                              std::to_string(kReturnsThroughAssertLine) + " Assert failed: aOk\n");
    EXPECT_EQ(ReturnsThroughAssert(true), RT_OK);
    EXPECT_EQ(g_afterAssert, 1);
    EXPECT_TRUE(Take().empty());
    ReturnsVoidThroughAssert(false);
    EXPECT_EQ(g_afterAssert, 1);
    EXPECT_EQ(Take().size(), 1u);
    ReturnsVoidThroughAssert(true);
    EXPECT_EQ(g_afterAssert, 2);
}

TEST_F(WriterTest, EachMacroIsOneStatementInAnUnbracedIfElse) {
    int elses = 0;
    for (int i = 0; i < 2; ++i) {
        if (i == 0)
            RT_INFO_TRACE("then " << i);
        else
            RT_WARNING_TRACE("else " << i);
        if (i == 0)
            RT_ASSERTE(i != 0);
        else
            ++elses;
        if (i == 1)
            RT_ERROR_TRACE("error " << i);
        else
            ++elses;
    }
    EXPECT_EQ(elses, 2);
    std::vector<std::string> lines = Take();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_NE(lines[0].find("Info:then 0\n"), std::string::npos);
    EXPECT_NE(lines[2].find("Warning:else 1\n"), std::string::npos);
}

TEST_F(WriterTest, TracingKeepsTheCallersErrno) {
    errno = EACCES;
    RT_ERROR_TRACE("failed! err=" << errno);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(OnlyBody(), "Error:failed! err=" + std::to_string(EACCES) + "\n");
    errno = ENOENT;
    RT_ASSERTE(errno == 0);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(WriterTest, ARemovedSinkReceivesNothing) {
    RtSetDebugOutputSink(nullptr);
    RT_INFO_TRACE("not seen");
    EXPECT_TRUE(Take().empty());
}
