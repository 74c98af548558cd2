// The library's start-up pieces: the sockets' start and end, the removal of old
// trace files, the module walk, and the load and unload traces of a child
// process.
#include <gtest/gtest.h>

#include <dlfcn.h>
#include <inttypes.h>
#include <stdio.h>
#include <time.h>

#include <string>
#include <vector>

#include "config_test_env.h"
#include "rtos.h"
#include "rtosnet.h"
#include "trace_capture.h"
#include "rtframework.h"

struct CRtThreadManagerTestAccess {
    static void DeleteOutOfDateLog(CRtThreadManager& aManager) { aManager.DeleteOutOfDateLog(); }
};

namespace {

const char kAttach[] = "Info:kvtframework::DllMain, DLL_PROCESS_ATTACH\n";
const char kDetach[] = "Info:kvtframework::DllMain, DLL_PROCESS_DETACH\n";

// The library's load address, as the dynamic loader tells it.
uintptr_t LibraryBase() {
    Dl_info info = {};
    EXPECT_NE(::dladdr(reinterpret_cast<void*>(&GetRtTraceFileName), &info), 0);
    return reinterpret_cast<uintptr_t>(info.dli_fbase);
}

// The local date aDays ago as trace file names carry it.
std::string DateDaysAgo(int aDays) {
    time_t then = ::time(nullptr) - static_cast<time_t>(aDays) * 24 * 3600;
    struct tm local = {};
    ::localtime_r(&then, &local);
    char date[32];
    ::snprintf(date, sizeof(date), "%04d%02d%02d", local.tm_year + 1900, local.tm_mon + 1,
               local.tm_mday);
    return date;
}

}  // namespace

TEST(SocketStartup, StartsOnceAndEndsOnce) {
    typedef int (*Step)();
    const struct {
        const char* name;
        Step step;
        int inited;     // s_bSocketInited afterwards
        unsigned open;  // the platform's outstanding start-ups afterwards
    } kSteps[] = {
        {"cleanup before any start", &CRtThreadManager::SocketCleanup, 0, 0},
        {"first start", &CRtThreadManager::SocketStartup, 1, 1},
        {"second start", &CRtThreadManager::SocketStartup, 1, 1},
        {"cleanup", &CRtThreadManager::SocketCleanup, 0, 0},
        {"second cleanup", &CRtThreadManager::SocketCleanup, 0, 0},
        {"start again", &CRtThreadManager::SocketStartup, 1, 1},
        {"cleanup again", &CRtThreadManager::SocketCleanup, 0, 0},
    };
    TraceCapture trace;
    for (const auto& step : kSteps) {
        SCOPED_TRACE(step.name);
        EXPECT_EQ(step.step(), RT_OK);
        EXPECT_EQ(CRtThreadManager::s_bSocketInited, step.inited);
        EXPECT_EQ(rtos::SocketStartupCount(), step.open);
    }
    EXPECT_EQ(trace.Count("CRtThreadManager::Socket"), 0u);  // no failure traced

    // The stand-in grants 2.2 and, like Winsock, refuses a clean-up too many.
    uint16_t granted = 0;
    EXPECT_EQ(rtos::SocketStartup(rtos::kSocketVersion22, &granted), 0);
    EXPECT_EQ(granted, 0x0202);
    EXPECT_EQ(rtos::SocketCleanup(), 0);
    EXPECT_NE(rtos::SocketCleanup(), 0);
}

TEST(DeleteOutOfDateLog, RemovesOnlyTraceFilesDatedBeforeThirtyDaysAgo) {
    TempDir temp;
    ScopedEnv xdg("XDG_DATA_HOME", (temp / "share").c_str());
    const std::string logs = temp / "Corvanthics/logs";
    CRtThreadManager manager;

    // No trace folder yet: nothing to search, nothing to fail.
    TraceCapture trace;
    CRtThreadManagerTestAccess::DeleteOutOfDateLog(manager);
    EXPECT_EQ(trace.TakeCount("CRtThreadManager::DeleteOutOfDateLog this="), 1u);

    ASSERT_EQ(::mkdir((temp / "Corvanthics").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(logs.c_str(), 0755), 0);
    const std::string cutoff = DateDaysAgo(30);
    const struct {
        std::string name;
        bool kept;
    } kFiles[] = {
        {"app_Trace_" + DateDaysAgo(29) + "_42.txt", true},
        {"app_Trace_" + cutoff + "_42.txt", true},  // the cut-off day itself
        {"app_Trace_" + DateDaysAgo(31) + "_42.txt", false},
        {"other.bin_Trace_" + DateDaysAgo(400) + "_7.txt", false},
        {"app_Trace_19700101_1", false},
        {"19_Trace_1.txt", true},    // eight characters before the last '_'
        {"119_Trace_1.txt", false},  // nine: "19_Trace" sorts before any date
        {"app_Trace_abcdefgh_1.txt", true},
        {"app_Log_19700101_1.txt", true},  // not a trace file name
        {"19700101.txt", true},
        {"diagnose.log", true},
    };
    for (const auto& file : kFiles) {
        ASSERT_TRUE(WriteFile(logs + "/" + file.name, "x")) << file.name;
    }
    // A folder that matches cannot be deleted; it is skipped.
    ASSERT_EQ(::mkdir((logs + "/old_Trace_19700101_1").c_str(), 0755), 0);
    int fds = OpenFdCount();

    CRtThreadManagerTestAccess::DeleteOutOfDateLog(manager);
    if (DateDaysAgo(30) != cutoff) {
        GTEST_SKIP() << "the date changed during the test";
    }
    for (const auto& file : kFiles) {
        EXPECT_EQ(FileExists(logs + "/" + file.name), file.kept) << file.name;
    }
    EXPECT_TRUE(FileExists(logs + "/old_Trace_19700101_1"));
    EXPECT_EQ(OpenFdCount(), fds);
}

TEST(ModuleForEach, ListsLoadedObjectsByFileNameAndLoadAddress) {
    struct Seen {
        std::vector<std::string> names;
        uintptr_t libraryBase = 0;
        size_t stopAfter = 0;
    };
    auto visit = [](const rtos::ModuleInfo& aModule, void* aArg) {
        Seen* seen = static_cast<Seen*>(aArg);
        seen->names.push_back(aModule.name);
        if (std::string(aModule.name).rfind("libkvtframework.so", 0) == 0) {
            seen->libraryBase = aModule.base;
        }
        return seen->names.size() != seen->stopAfter;
    };

    Seen all;
    ASSERT_TRUE(rtos::ModuleForEach(visit, &all));
    ASSERT_FALSE(all.names.empty());
    EXPECT_EQ(all.names.front(), "test_startup");  // the program itself comes first
    for (const std::string& name : all.names) {
        EXPECT_EQ(name.find('/'), std::string::npos) << name;
    }
    EXPECT_EQ(all.libraryBase, LibraryBase());

    Seen first;
    first.stopAfter = 1;
    EXPECT_TRUE(rtos::ModuleForEach(visit, &first));
    EXPECT_EQ(first.names.size(), 1u);
    EXPECT_FALSE(rtos::ModuleForEach(nullptr, nullptr));
}

// Run as a child: checks the load trace in its own trace file, then names the
// file for the parent, which checks the unload trace after the child's exit.
TEST(StartupChild, DISABLED_CheckLoadTrace) {
    const char* result = ::getenv("KVT_CHILD_RESULT");
    ASSERT_TRUE(result);
    ASSERT_TRUE(WriteFile(result, GetRtTraceFileName()));
    std::string text = ReadFile(GetRtTraceFileName());
    char base[64];
    ::snprintf(base, sizeof(base), "0x%08" PRIXPTR, LibraryBase());
    const std::string moduleInfo =
        std::string("Info:Module Memory Info *******************************************\r\n") +
        "Module Memory Info NAME:    libkvtframework.so";
    EXPECT_EQ(CountOf(text, kAttach), 1u) << text;
    EXPECT_EQ(CountOf(text, moduleInfo), 1u) << text;
    EXPECT_EQ(
        CountOf(text, std::string("Module Memory Info base address   = ") + base + " \r\n\r\n\n"),
        1u)
        << text;
    EXPECT_LT(text.find(kAttach), text.find(moduleInfo));
    EXPECT_EQ(CountOf(text, "TraceProcessModuleInfo"), 0u);  // no warning
}

TEST(Startup, TheLibraryTracesItsLoadAndUnload) {
    TempDir temp;
    const std::string result = temp / "result.txt";
    ChildResult child = RunSelf("StartupChild.DISABLED_CheckLoadTrace", temp.Path(),
                                {{"XDG_DATA_HOME", temp / "share"}, {"KVT_CHILD_RESULT", result}});
    EXPECT_EQ(child.exitCode, 0);
    const std::string fileName = ReadFile(result);
    EXPECT_EQ(fileName.rfind(temp / "Corvanthics/logs/", 0), 0u) << fileName;
    std::string text = ReadFile(fileName);
    EXPECT_EQ(CountOf(text, kAttach), 1u);
    EXPECT_EQ(CountOf(text, kDetach), 1u);
    EXPECT_LT(text.find(kAttach), text.find(kDetach));
}
