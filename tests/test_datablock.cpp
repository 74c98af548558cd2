#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cstring>
#include <thread>

#include "rtdatablock.h"
#include "trace_capture.h"

TEST(DataBlock, CreateMakesOneAllocationWithOneReference) {
    const struct {
        unsigned long size;
        const char* data;
    } kCases[] = {{5, "hello"}, {4096, nullptr}};
    for (const auto& c : kCases) {
        CRtDataBlock* db = nullptr;
        ASSERT_EQ(CRtDataBlock::CreateInstance(db, c.size, c.data), RT_OK);
        EXPECT_EQ(db->GetLength(), c.size);
        EXPECT_EQ(db->GetReference(), 1u);
        // The data follows the object, aligned for any pointer.
        EXPECT_EQ(db->GetBasePtr(), reinterpret_cast<char*>(db) + sizeof(CRtDataBlock));
        EXPECT_EQ(reinterpret_cast<uintptr_t>(db->GetBasePtr()) % alignof(void*), 0u);
        if (c.data) {
            EXPECT_EQ(std::memcmp(db->GetBasePtr(), c.data, c.size), 0);
        }
        std::memset(db->GetBasePtr(), 0xAB, c.size);  // the whole area is ours (ASan checks)
        db->ReleaseReference();
    }
}

TEST(DataBlock, BadCreationsFailAndLeaveThePointerAlone) {
    TraceCapture capture;
    CRtDataBlock* db = nullptr;
    EXPECT_EQ(CRtDataBlock::CreateInstance(db, 0, "x"), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(db, nullptr);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aSize > 0"));

    // A 64-bit Windows long is 32 bits: its largest size, 4 GiB, may be granted.
    if (sizeof(unsigned long) >= sizeof(void*)) {
        EXPECT_EQ(CRtDataBlock::CreateInstance(db, ULONG_MAX, nullptr), RT_ERROR_OUT_OF_MEMORY);
        EXPECT_EQ(db, nullptr);
    }

    // A pointer still set is reported and overwritten, not released.
    CRtDataBlock* first = nullptr;
    ASSERT_EQ(CRtDataBlock::CreateInstance(first, 8, nullptr), RT_OK);
    CRtDataBlock* second = first;
    ASSERT_EQ(CRtDataBlock::CreateInstance(second, 8, nullptr), RT_OK);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: !aDb"));
    EXPECT_NE(second, first);
    EXPECT_EQ(first->GetReference(), 1u);
    first->ReleaseReference();
    second->ReleaseReference();
}

TEST(DataBlock, OnlyTheLastReleaseFreesAlsoOnAnotherThread) {
    CRtDataBlock* db = nullptr;
    ASSERT_EQ(CRtDataBlock::CreateInstance(db, 64, nullptr), RT_OK);
    db->AddReference();
    EXPECT_EQ(db->ReleaseReference(), 1u);
    EXPECT_EQ(db->GetLength(), 64u);  // still alive: ASan would flag a use after free
    std::thread([db] { db->ReleaseReference(); }).join();
}

TEST(DataBlockNoMalloc, ReadsAndWritesStopAtTheEndWithIndependentCursors) {
    char buf[10] = {};
    CRtDataBlockNoMalloc nm(buf, sizeof(buf));
    unsigned long n = 99;
    EXPECT_EQ(nm.Write("0123456789ab", 12, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 10u);
    EXPECT_EQ(std::memcmp(buf, "0123456789", 10), 0);
    EXPECT_EQ(nm.Write("z", 0, &n), RT_OK);
    EXPECT_EQ(n, 0u);

    char out[16] = {};
    EXPECT_EQ(nm.Read(out, 4, &n), RT_OK);  // the read cursor starts at the front
    EXPECT_EQ(std::memcmp(out, "0123", 4), 0);
    CRtDataBlockNoMalloc copy(nm);  // its own cursors over the same memory
    EXPECT_EQ(nm.Read(out, 10, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 6u);
    EXPECT_EQ(std::memcmp(out, "456789", 6), 0);
    EXPECT_EQ(nm.Read(out, 1, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(nm.Read(out, 0, &n), RT_OK);
    EXPECT_EQ(nm.Read(out, 3), RT_ERROR_PARTIAL_DATA);  // no count asked for
    EXPECT_EQ(copy.Read(out, 3, &n), RT_OK);
    EXPECT_EQ(std::memcmp(out, "456", 3), 0);
}

TEST(DataBlockNoMalloc, NullBuffersAndNullRangesAreRefused) {
    TraceCapture capture;
    char buf[4] = {};
    CRtDataBlockNoMalloc nm(buf, sizeof(buf));
    EXPECT_EQ(nm.Read(nullptr, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aDst"));
    EXPECT_EQ(nm.Write(nullptr, 1), RT_ERROR_INVALID_ARG);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aSrc"));

    CRtDataBlockNoMalloc empty(nullptr, 10);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: m_pBegin"));
    // The destination is checked before the cursors.
    EXPECT_EQ(empty.Read(nullptr, 1), RT_ERROR_INVALID_ARG);
    TraceCapture::Take();
    unsigned long n = 99;
    EXPECT_EQ(empty.Read(buf, 1, &n), RT_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: m_pCurrentRead"));
    EXPECT_EQ(empty.Write(buf, 1, &n), RT_ERROR_NOT_INITIALIZED);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: m_pCurrentWrite"));
    EXPECT_EQ(n, 99u);
}
