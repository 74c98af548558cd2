#include <gtest/gtest.h>

#include <climits>
#include <string>

#include "messageblock_helpers.h"
#include "rtmessageblock.h"
#include "trace_capture.h"

TEST(MessageBlock, ConstructorsSetPositionsFlagsAndOwnership) {
    char bytes[5] = {'a', 'b', 'c', 'd', 'e'};
    const unsigned long kHostBit = 0x40000;
    const unsigned long kBoth = CRtMessageBlock::MALLOC_DATA | CRtMessageBlock::DONT_DELETE;
    const struct {
        unsigned long size;
        bool callerMemory;
        unsigned long flag;
        unsigned long advance;
        unsigned long length;
        unsigned long space;
        unsigned long flagAfter;
        const char* trace;  // the one line expected, if any
    } kCases[] = {
        {100, false, 0, 0, 0, 100, 0, nullptr},
        {100, false, 0, 40, 40, 60, 0, nullptr},
        {5, true, 0, 0, 0, 5, CRtMessageBlock::DONT_DELETE, nullptr},  // wraps, no copy
        {5, true, 0, 5, 5, 0, CRtMessageBlock::DONT_DELETE, nullptr},
        {5, true, CRtMessageBlock::MALLOC_DATA, 5, 5, 0, 0, nullptr},  // own copy
        // Both a copy and caller memory: the copy wins.
        {5, true, kBoth, 0, 0, 5, 0,
         "Assert failed: RT_BIT_DISABLED(aFlag, CRtMessageBlock::DONT_DELETE)"},
        // Lock bits and unknown low bits are dropped; the host's bits stay.
        {8, false,
         kHostBit | CRtMessageBlock::READ_LOCKED | CRtMessageBlock::WRITE_LOCKED | 0x8000 |
             CRtMessageBlock::DUPLICATED,
         0, 0, 8, kHostBit | CRtMessageBlock::DUPLICATED, nullptr},
        {4, false, 0, 5, 0, 4, 0, "Assert failed: m_pWritePtr + aStep <= m_pEndPtr"},
    };
    for (const auto& c : kCases) {
        SCOPED_TRACE(testing::Message() << c.size << " flag " << c.flag << " +" << c.advance);
        TraceCapture capture;
        CRtMessageBlock mb(c.size, c.callerMemory ? bytes : nullptr, c.flag, c.advance);
        EXPECT_EQ(mb.GetTopLevelLength(), c.length);
        EXPECT_EQ(mb.GetTopLevelSpace(), c.space);
        EXPECT_EQ(mb.GetFlag(), c.flagAfter);
        EXPECT_EQ(mb.GetNext(), nullptr);
        if (c.callerMemory) {
            EXPECT_EQ(mb.GetTopLevelWritePtr() - c.length == bytes,
                      c.flagAfter == CRtMessageBlock::DONT_DELETE);
        }
        EXPECT_EQ(TraceCapture::TakeCount(c.trace ? c.trace : "Assert failed"), c.trace ? 1u : 0u);
    }
}

TEST(MessageBlock, SizeZeroGivesNullPositionsAndTakesNoBytes) {
    CRtMessageBlock empty(0);
    EXPECT_EQ(empty.GetTopLevelReadPtr(), nullptr);
    EXPECT_EQ(empty.GetTopLevelWritePtr(), nullptr);
    unsigned long n = 99;
    EXPECT_EQ(empty.Write("abc", 3, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(empty.Read(nullptr, 0, &n), RT_OK);
}

TEST(MessageBlock, ConstructedOverADataBlockSharesIt) {
    TraceCapture capture;
    CRtDataBlock* db = nullptr;
    ASSERT_EQ(CRtDataBlock::CreateInstance(db, 6, "abcdef"), RT_OK);
    {
        CRtMessageBlock mb(db, CRtMessageBlock::DONT_DELETE | CRtMessageBlock::MALLOC_DATA);
        EXPECT_EQ(1u, TraceCapture::TakeCount(
                          "Assert failed: RT_BIT_DISABLED(aFlag, CRtMessageBlock::DONT_DELETE)"));
        EXPECT_EQ(mb.GetFlag(), 0u);
        EXPECT_EQ(db->GetReference(), 2u);
        EXPECT_EQ(mb.GetTopLevelWritePtr(), db->GetBasePtr());
        EXPECT_EQ(mb.AdvanceTopLevelWritePtr(6), RT_OK);
        EXPECT_EQ(mb.FlattenChained(), "abcdef");
    }
    EXPECT_EQ(db->GetReference(), 1u);
    db->ReleaseReference();
}

TEST(MessageBlock, AdvancingPastDataOrSpaceFailsAndMovesNothing) {
    TraceCapture capture;
    CRtMessageBlock mb(10, nullptr, 0, 4);
    EXPECT_EQ(mb.AdvanceTopLevelReadPtr(5), RT_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: m_pWritePtr >= m_pReadPtr + aStep"));
    EXPECT_EQ(mb.AdvanceTopLevelWritePtr(7), RT_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: m_pWritePtr + aStep <= m_pEndPtr"));
    // Huge steps must not form pointers beyond the buffer (UBSan checks).
    EXPECT_EQ(mb.AdvanceTopLevelWritePtr(ULONG_MAX), RT_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(mb.AdvanceTopLevelReadPtr(ULONG_MAX), RT_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(mb.GetTopLevelLength(), 4u);
    EXPECT_EQ(mb.GetTopLevelSpace(), 6u);
    TraceCapture::Take();

    EXPECT_EQ(mb.AdvanceTopLevelReadPtr(4), RT_OK);
    EXPECT_EQ(mb.AdvanceTopLevelWritePtr(6), RT_OK);
    EXPECT_EQ(mb.GetTopLevelLength(), 6u);
    EXPECT_EQ(mb.GetTopLevelSpace(), 0u);
    EXPECT_TRUE(TraceCapture::Take().empty());
}

TEST(MessageBlock, LockedBlocksTraceEachUseAndGoOn) {
    TraceCapture capture;
    CRtMessageBlock* mb = MakeBlock("abcd", 4);
    mb->LockReading();
    mb->LockWriting();
    const std::string kRead = "Assert failed: RT_BIT_DISABLED(m_Flag, READ_LOCKED)";
    const std::string kWrite = "Assert failed: RT_BIT_DISABLED(m_Flag, WRITE_LOCKED)";
    EXPECT_NE(mb->GetTopLevelReadPtr(), nullptr);
    EXPECT_EQ(TraceCapture::TakeCount(kRead), 1u);
    EXPECT_NE(mb->GetTopLevelWritePtr(), nullptr);
    EXPECT_EQ(TraceCapture::TakeCount(kWrite), 1u);
    EXPECT_EQ(mb->AdvanceTopLevelWritePtr(1), RT_OK);
    EXPECT_EQ(TraceCapture::TakeCount(kWrite), 1u);
    EXPECT_EQ(mb->AdvanceTopLevelReadPtr(1), RT_OK);
    EXPECT_EQ(TraceCapture::TakeCount(kRead), 1u);
    EXPECT_EQ(mb->Write("x", 1), RT_OK);
    EXPECT_EQ(TraceCapture::TakeCount(kWrite), 1u);
    char out[8];
    EXPECT_EQ(mb->Peek(out, 2), RT_OK);
    EXPECT_EQ(TraceCapture::TakeCount(kRead), 1u);
    EXPECT_EQ(mb->Read(out, 2), RT_OK);
    EXPECT_EQ(
        TraceCapture::TakeCount("Assert failed: RT_BIT_DISABLED(pMbMove->m_Flag, READ_LOCKED)"),
        1u);
    delete mb;
}

TEST(MessageBlock, WriteCopiesIntoThisBlockOnlyAndReportsPartialWrites) {
    CRtMessageBlock first(5);
    CRtMessageBlock second(5);
    first.Append(&second);
    unsigned long n = 99;
    EXPECT_EQ(first.Write("abcdefgh", 8, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 5u);
    EXPECT_EQ(first.FlattenChained(), "abcde");
    EXPECT_EQ(second.Write(nullptr, 3, &n), RT_OK);  // a null source only counts
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(second.GetTopLevelLength(), 3u);
}

TEST(MessageBlock, PeekWithoutABufferCountsAcrossBlocks) {
    OwnedChain chain({"abcd", "", "efg"});
    unsigned long n = 99;
    EXPECT_EQ(chain.Head()->Peek(nullptr, 6, 1, &n), RT_OK);
    EXPECT_EQ(n, 6u);
    EXPECT_EQ(chain.Head()->Peek(nullptr, 9, 2, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 5u);
    EXPECT_EQ(chain.Head()->FlattenChained(), "abcdefg");
}

TEST(MessageBlock, OutOfOrderPositionsNeverLeadOutsideTheBuffer) {
    TraceCapture capture;
    CRtMessageBlock* mb = MakeBlock("abcdef", 2);
    ASSERT_EQ(mb->AdvanceTopLevelReadPtr(4), RT_OK);
    mb->RewindChained(FALSE);  // write goes back to begin, read stays: read > write
    EXPECT_EQ(mb->GetTopLevelLength(), 0u);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: m_pWritePtr >= m_pReadPtr"));
    char out[8];
    unsigned long n = 99;
    EXPECT_EQ(mb->Read(out, 4, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 0u);
    EXPECT_TRUE(
        TraceCapture::TakeCount("Assert failed: pMbMove->m_pWritePtr >= pMbMove->m_pReadPtr"));
    EXPECT_EQ(mb->Peek(out, 1, 0, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(mb->FlattenChained(), "");
    iovec iov[2];
    EXPECT_EQ(mb->FillIov(iov, 2, 100), 0u);
    delete mb;
}
