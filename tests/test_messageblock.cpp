#include <gtest/gtest.h>

#include <climits>
#include <cstring>
#include <string>

#include "messageblock_helpers.h"
#include "rtmessageblock.h"
#include "trace_capture.h"

TEST(MessageBlock, ConstructedWithASizeHasSpaceAndOptionallyData) {
    CRtMessageBlock fresh(100);
    EXPECT_EQ(fresh.GetTopLevelLength(), 0u);
    EXPECT_EQ(fresh.GetTopLevelSpace(), 100u);
    EXPECT_EQ(fresh.GetFlag(), 0u);
    EXPECT_EQ(fresh.GetNext(), nullptr);

    CRtMessageBlock advanced(100, nullptr, 0, 40);
    EXPECT_EQ(advanced.GetTopLevelLength(), 40u);
    EXPECT_EQ(advanced.GetTopLevelSpace(), 60u);
    EXPECT_EQ(advanced.GetTopLevelWritePtr() - advanced.GetTopLevelReadPtr(), 40);
}

TEST(MessageBlock, ConstructedOverCallerMemoryWrapsItWithoutCopying) {
    char bytes[5] = {'a', 'b', 'c', 'd', 'e'};
    CRtMessageBlock wrapped(sizeof(bytes), bytes);
    EXPECT_EQ(wrapped.GetFlag(), static_cast<unsigned long>(CRtMessageBlock::DONT_DELETE));
    EXPECT_EQ(wrapped.GetTopLevelLength(), 0u);
    EXPECT_EQ(wrapped.GetTopLevelSpace(), 5u);

    CRtMessageBlock full(sizeof(bytes), bytes, 0, 5);
    EXPECT_EQ(full.GetTopLevelLength(), 5u);
    EXPECT_EQ(full.GetTopLevelReadPtr(), bytes);
    bytes[0] = 'z';
    EXPECT_EQ(full.FlattenChained(), "zbcde");
}

TEST(MessageBlock, MallocDataMakesOwnStorageAndIsNotKept) {
    TraceCapture capture;
    const char bytes[5] = {'a', 'b', 'c', 'd', 'e'};
    CRtMessageBlock own(sizeof(bytes), bytes, CRtMessageBlock::MALLOC_DATA, 5);
    EXPECT_EQ(own.GetTopLevelLength(), 5u);
    EXPECT_NE(own.GetTopLevelReadPtr(), bytes);
    EXPECT_EQ(own.GetFlag(), 0u);

    // Asking for both a copy and caller memory is reported; the copy wins.
    CRtMessageBlock both(sizeof(bytes), bytes,
                         CRtMessageBlock::MALLOC_DATA | CRtMessageBlock::DONT_DELETE);
    EXPECT_EQ(1u, TraceCapture::TakeCount(
                      "Assert failed: RT_BIT_DISABLED(aFlag, CRtMessageBlock::DONT_DELETE)"));
    EXPECT_EQ(both.GetFlag(), 0u);
    EXPECT_NE(both.GetTopLevelWritePtr(), bytes);
    EXPECT_EQ(both.GetTopLevelSpace(), 5u);
}

TEST(MessageBlock, ConstructorsDropLockBitsAndKeepOtherFlags) {
    const unsigned long kHostBit = 0x40000;
    CRtMessageBlock mb(8, nullptr,
                       kHostBit | CRtMessageBlock::READ_LOCKED | CRtMessageBlock::WRITE_LOCKED |
                           0x8000 | CRtMessageBlock::DUPLICATED);
    EXPECT_EQ(mb.GetFlag(), kHostBit | CRtMessageBlock::DUPLICATED);
}

TEST(MessageBlock, SizeZeroGivesNullPositions) {
    TraceCapture capture;
    CRtMessageBlock empty(0);
    EXPECT_EQ(empty.GetTopLevelReadPtr(), nullptr);
    EXPECT_EQ(empty.GetTopLevelWritePtr(), nullptr);
    EXPECT_EQ(empty.GetTopLevelLength(), 0u);
    EXPECT_EQ(empty.GetTopLevelSpace(), 0u);
    unsigned long n = 99;
    EXPECT_EQ(empty.Write("abc", 3, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(empty.Read(nullptr, 0, &n), RT_OK);

    // Advancing a block's write position beyond its size at construction is
    // traced and leaves it empty.
    CRtMessageBlock tooFar(4, nullptr, 0, 5);
    EXPECT_EQ(tooFar.GetTopLevelLength(), 0u);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: m_pWritePtr + aStep <= m_pEndPtr"));
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
        EXPECT_EQ(mb.GetTopLevelSpace(), 6u);
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
    EXPECT_EQ(mb.GetTopLevelLength(), 4u);
    EXPECT_EQ(mb.AdvanceTopLevelWritePtr(7), RT_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: m_pWritePtr + aStep <= m_pEndPtr"));
    EXPECT_EQ(mb.GetTopLevelSpace(), 6u);
    // Huge steps must not form pointers beyond the buffer (UBSan checks).
    EXPECT_EQ(mb.AdvanceTopLevelWritePtr(ULONG_MAX), RT_ERROR_NOT_AVAILABLE);
    EXPECT_EQ(mb.AdvanceTopLevelReadPtr(ULONG_MAX), RT_ERROR_NOT_AVAILABLE);
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
    EXPECT_EQ(mb->GetFlag(), static_cast<unsigned long>(CRtMessageBlock::READ_LOCKED |
                                                        CRtMessageBlock::WRITE_LOCKED));
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
    CRtMessageBlock* first = new CRtMessageBlock(5);
    CRtMessageBlock* second = new CRtMessageBlock(5);
    first->Append(second);
    unsigned long n = 99;
    EXPECT_EQ(first->Write("abcdefgh", 8, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 5u);
    EXPECT_EQ(first->GetTopLevelSpace(), 0u);
    EXPECT_EQ(second->GetTopLevelLength(), 0u);
    EXPECT_EQ(first->FlattenChained(), "abcde");
    EXPECT_EQ(second->Write(nullptr, 3, &n), RT_OK);  // a null source only counts
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(second->GetTopLevelLength(), 3u);
    EXPECT_EQ(second->Write("", 0, &n), RT_OK);
    EXPECT_EQ(n, 0u);
    delete first;
    delete second;
}

class MessageBlockReadPeek : public ::testing::Test {
protected:
    // Blocks holding "abcd", nothing and "efg".
    void SetUp() override {
        m_pA = MakeBlock("abcd");
        m_pB = MakeBlock("", 2);
        m_pC = MakeBlock("efg", 1);
        m_pA->Append(m_pB);
        m_pA->Append(m_pC);
    }
    void TearDown() override {
        delete m_pA;
        delete m_pB;
        delete m_pC;
    }
    CRtMessageBlock* m_pA = nullptr;
    CRtMessageBlock* m_pB = nullptr;
    CRtMessageBlock* m_pC = nullptr;
};

TEST_F(MessageBlockReadPeek, ReadCrossesEmptyBlocksAndReportsShortReads) {
    char out[16] = {};
    unsigned long n = 99;
    EXPECT_EQ(m_pA->Read(out, 10, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 7u);
    EXPECT_EQ(std::string(out, 7), "abcdefg");
    EXPECT_EQ(m_pA->GetChainedLength(), 0u);
    EXPECT_EQ(m_pC->GetTopLevelLength(), 0u);
    EXPECT_EQ(m_pA->Read(out, 1, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 0u);
}

TEST_F(MessageBlockReadPeek, ReadStopsExactlyWhereTheRequestIsMet) {
    char out[16] = {};
    unsigned long n = 99;
    EXPECT_EQ(m_pA->Read(out, 5, &n), RT_OK);
    EXPECT_EQ(n, 5u);
    EXPECT_EQ(std::string(out, 5), "abcde");
    EXPECT_EQ(m_pC->FlattenChained(), "fg");
    EXPECT_EQ(m_pA->Read(out, 0, &n), RT_OK);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(m_pA->Read(nullptr, 1, &n), RT_OK);  // skips like AdvanceChainedReadPtr
    EXPECT_EQ(m_pA->FlattenChained(), "g");
}

TEST_F(MessageBlockReadPeek, ReadWithoutAdvanceMovesNothing) {
    char out[16] = {};
    unsigned long n = 99;
    EXPECT_EQ(m_pA->Read(out, 6, &n, FALSE), RT_OK);
    EXPECT_EQ(std::string(out, 6), "abcdef");
    EXPECT_EQ(m_pA->GetChainedLength(), 7u);
    EXPECT_EQ(m_pA->FlattenChained(), "abcdefg");
}

TEST_F(MessageBlockReadPeek, PeekCopiesAcrossBlocksAtAnyPosition) {
    char out[16] = {};
    unsigned long n = 99;
    EXPECT_EQ(m_pA->Peek(out, 3, 2, &n), RT_OK);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(std::string(out, 3), "cde");
    EXPECT_EQ(m_pA->Peek(out, 2, 5, &n), RT_OK);  // starts past an empty block
    EXPECT_EQ(std::string(out, 2), "fg");
    EXPECT_EQ(m_pA->Peek(out, 4, 0, &n), RT_OK);  // ends on the block boundary
    EXPECT_EQ(std::string(out, 4), "abcd");
    EXPECT_EQ(m_pA->Peek(nullptr, 7, 0, &n), RT_OK);
    EXPECT_EQ(n, 7u);
    EXPECT_EQ(m_pA->GetChainedLength(), 7u);
}

TEST_F(MessageBlockReadPeek, PeekPastTheEndIsPartial) {
    char out[16] = {};
    unsigned long n = 99;
    EXPECT_EQ(m_pA->Peek(out, 1, 7, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 99u);  // untouched
    EXPECT_EQ(m_pA->Peek(out, 10, 2, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 5u);
    EXPECT_EQ(std::string(out, 5), "cdefg");
    EXPECT_EQ(m_pC->Peek(out, 5, 1, &n), RT_ERROR_PARTIAL_DATA);  // the last block alone
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(std::string(out, 2), "fg");
    EXPECT_EQ(m_pA->GetChainedLength(), 7u);
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
