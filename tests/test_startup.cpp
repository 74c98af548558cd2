// The library's start-up pieces: the sockets' start and end, the removal of old
// trace files, and the trace file and load and unload traces of a child process.
#include <gtest/gtest.h>

#include <inttypes.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <string>

#ifndef _WIN32
#include <dlfcn.h>
#endif

#include "config_test_env.h"
#include "rtos.h"
#include "rtosnet.h"
#include "trace_capture.h"
#include "rtframework.h"

struct CRtThreadManagerTestAccess {
    static void DeleteOutOfDateLog(CRtThreadManager& aManager) { aManager.DeleteOutOfDateLog(); }
};

namespace {

#ifdef _WIN32
const char kProcess[] = "test_startup.exe";  // cut at the last backslash only
#else
const char kProcess[] = "test_startup";
#endif
const char kAttach[] = "Info:kvtframework::DllMain, DLL_PROCESS_ATTACH\n";

struct Library {
    std::string name;  // the file name, without its folder
    uintptr_t base;
};

// The library's file name and load address, as the loader tells them.
Library LibraryInfo() {
#ifdef _WIN32
    HMODULE module = nullptr;
    EXPECT_TRUE(::GetModuleHandleExA(
        GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
        reinterpret_cast<LPCSTR>(&GetRtTraceFileName), &module));
    char path[MAX_PATH] = "";
    ::GetModuleFileNameA(module, path, sizeof(path));
    const char* slash = ::strrchr(path, '\\');
    return {slash ? slash + 1 : path, reinterpret_cast<uintptr_t>(module)};
#else
    Dl_info info = {};
    EXPECT_NE(::dladdr(reinterpret_cast<void*>(&GetRtTraceFileName), &info), 0);
    return {::strrchr(info.dli_fname, '/') + 1, reinterpret_cast<uintptr_t>(info.dli_fbase)};
#endif
}

// The local date aDays ago, as trace file names carry it.
[[maybe_unused]] std::string DateDaysAgo(int aDays) {
    time_t then = ::time(nullptr) - static_cast<time_t>(aDays) * 24 * 3600;
    char date[16];
    ::strftime(date, sizeof(date), "%Y%m%d", ::localtime(&then));
    return date;
}

}  // namespace

TEST(SocketStartup, StartsOnceAndEndsOnce) {
    const struct {
        int (*step)();
        int inited;     // s_bSocketInited afterwards
        unsigned open;  // the platform's outstanding start-ups afterwards
    } kSteps[] = {
        {&CRtThreadManager::SocketCleanup, 0, 0},  // nothing to end
        {&CRtThreadManager::SocketStartup, 1, 1}, {&CRtThreadManager::SocketStartup, 1, 1},
        {&CRtThreadManager::SocketCleanup, 0, 0}, {&CRtThreadManager::SocketCleanup, 0, 0},
        {&CRtThreadManager::SocketStartup, 1, 1}, {&CRtThreadManager::SocketCleanup, 0, 0},
    };
    TraceCapture trace;
    for (size_t i = 0; i < sizeof(kSteps) / sizeof(kSteps[0]); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(kSteps[i].step(), RT_OK);
        EXPECT_EQ(CRtThreadManager::s_bSocketInited, kSteps[i].inited);
        EXPECT_EQ(rtos::SocketStartupCount(), kSteps[i].open);
    }
    EXPECT_EQ(trace.Count("CRtThreadManager::Socket"), 0u);
    EXPECT_NE(rtos::SocketCleanup(), 0);  // like Winsock, a clean-up too many fails
}

TEST(DeleteOutOfDateLog, RemovesOnlyTraceFilesDatedBeforeThirtyDaysAgo) {
#ifdef _WIN32
    GTEST_SKIP() << "POSIX only: moves the trace folder with XDG_DATA_HOME";
#else
    TempDir temp;
    ScopedEnv xdg("XDG_DATA_HOME", (temp / "share").c_str());
    const std::string logs = temp / "Corvanthics/logs";
    CRtThreadManager manager;
    TraceCapture trace;
    CRtThreadManagerTestAccess::DeleteOutOfDateLog(manager);  // no folder yet
    EXPECT_EQ(trace.Count("CRtThreadManager::DeleteOutOfDateLog this="), 1u);

    ASSERT_TRUE(fs::create_directories(logs + "/old_Trace_19700101_1"));
    const std::string cutoff = DateDaysAgo(30);
    const struct {
        std::string name;
        bool kept;
    } kFiles[] = {
        {"app_Trace_" + DateDaysAgo(29) + "_42.txt", true},
        {"app_Trace_" + cutoff + "_42.txt", true},
        {"app_Trace_" + DateDaysAgo(31) + "_42.txt", false},
        {"app_Trace_19700101_1", false},
        {"19_Trace_1.txt", true},    // eight characters before the last '_'
        {"119_Trace_1.txt", false},  // nine: "19_Trace" sorts before any date
        {"app_Trace_abcdefgh_1.txt", true},
        {"app_Log_19700101_1.txt", true},  // not a trace file
        {"19700101.txt", true},
        {"old_Trace_19700101_1", true},  // a folder: skipped
    };
    for (const auto& file : kFiles) {
        ASSERT_TRUE(FileExists(logs + "/" + file.name) || WriteFile(logs + "/" + file.name, "x"));
    }
    int fds = OpenFdCount();
    CRtThreadManagerTestAccess::DeleteOutOfDateLog(manager);
    if (DateDaysAgo(30) != cutoff) {
        GTEST_SKIP() << "the date changed during the test";
    }
    for (const auto& file : kFiles) {
        EXPECT_EQ(FileExists(logs + "/" + file.name), file.kept) << file.name;
    }
    EXPECT_EQ(OpenFdCount(), fds);
#endif
}

// Run as a child: checks its trace file's name and load trace, and names the
// file for the parent.
TEST(StartupChild, DISABLED_CheckLoadTrace) {
    const std::string name = GetRtTraceFileName();
    ASSERT_TRUE(WriteFile(::getenv("KVT_CHILD_RESULT"), name));
    EXPECT_NE(name.find(rtos::kPathSeparator + std::string(kProcess) + "_Trace_"),
              std::string::npos)
        << name;
    EXPECT_EQ(name.substr(name.rfind('_')),
              "_" + std::to_string(rtos::CurrentProcessId()) + ".txt");
    Library library = LibraryInfo();
    char expected[512];
    ::snprintf(expected, sizeof(expected),
               "Info:Module Memory Info %s\r\nModule Memory Info NAME:    %s \r\n"
               "Module Memory Info base address   = 0x%08" PRIXPTR " \r\n\r\n\n",
               std::string(43, '*').c_str(), library.name.c_str(), library.base);
    std::string text = ReadFile(GetRtTraceFileName());
    EXPECT_EQ(CountOf(text, kAttach), 1u) << text;
    EXPECT_EQ(CountOf(text, expected), 1u) << expected << text;
    EXPECT_LT(text.find(kAttach), text.find(expected));
}

TEST(Startup, TheLibraryTracesItsLoadAndUnload) {
    TempDir temp;
    const std::string result = temp / "result.txt";
    ChildResult child = RunSelf("StartupChild.DISABLED_CheckLoadTrace", temp.Path(),
                                {{"XDG_DATA_HOME", temp / "share"}, {"KVT_CHILD_RESULT", result}});
    EXPECT_EQ(child.exitCode, 0);
    std::string text = ReadFile(ReadFile(result));
    size_t detach = text.find("Info:kvtframework::DllMain, DLL_PROCESS_DETACH\n");
    EXPECT_NE(detach, std::string::npos) << text;
    EXPECT_LT(text.find(kAttach), detach);
}
