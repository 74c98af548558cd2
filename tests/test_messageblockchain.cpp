#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "messageblock_helpers.h"
#include "rtmessageblock.h"
#include "trace_capture.h"

TEST(MessageBlockChainOps, AppendLinksAtTheEndAndRefusesLoopsNullAndBadBlocks) {
    TraceCapture capture;
    OwnedChain chain({"ab", "", "cde"});
    CRtMessageBlock* tail = new CRtMessageBlock(10, nullptr, 0, 3);
    chain.Head()->Append(tail);
    EXPECT_EQ(ChainBlocks(chain.Head()), 4u);
    EXPECT_EQ(chain.Head()->GetChainedLength(), 8u);
    EXPECT_EQ(chain.Head()->GetChainedSpace(), 7u);
    EXPECT_EQ(chain[1]->GetChainedLength(), 6u);  // from the middle on

    chain.Head()->Append(chain[1]);
    chain.Head()->Append(chain.Head());
    EXPECT_EQ(2u, TraceCapture::TakeCount("Assert failed: aMb != pMbMove"));
    chain.Head()->Append(nullptr);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aMb"));
    EXPECT_EQ(ChainBlocks(chain.Head()), 4u);  // no loop

    // A block whose read position passed its write position is traced, yet linked.
    CRtMessageBlock* odd = MakeBlock("xyz");
    odd->AdvanceTopLevelReadPtr(2);
    odd->RewindChained(FALSE);
    TraceCapture::Take();
    chain.Head()->Append(odd);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aMb->m_pReadPtr <= aMb->m_pWritePtr"));
    EXPECT_EQ(tail->GetNext(), odd);
    delete tail;
    delete odd;
}

TEST(MessageBlockChainOps, AdvanceChainedWritePtrTracesWhatItCannotFill) {
    TraceCapture capture;
    CRtMessageBlock* a = new CRtMessageBlock(4, nullptr, 0, 2);
    CRtMessageBlock* b = new CRtMessageBlock(4, nullptr, 0, 2);
    a->Append(b);
    b->AdvanceTopLevelReadPtr(1);
    unsigned long n = 99;
    // b was read from: a's space is filled, then the walk stops at b.
    EXPECT_EQ(a->AdvanceChainedWritePtr(4, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(b->GetTopLevelLength(), 1u);
    std::vector<std::string> lines = TraceCapture::Take();
    EXPECT_EQ(TraceCapture::CountIn(lines,
                                    "Assert failed: pCurrent->m_pBeginPtr == pCurrent->m_pReadPtr"),
              1u);
    EXPECT_EQ(TraceCapture::CountIn(
                  lines, "CRtMessageBlock::AdvanceChainedWritePtr, can't advance. m_pBeginPtr=0x"),
              1u);
    EXPECT_EQ(TraceCapture::CountIn(lines, " m_pReadPtr=0x"), 1u);
    EXPECT_EQ(TraceCapture::CountIn(lines, "aCount > dwNeedWrite"), 0u);
    a->AdvanceTopLevelReadPtr(1);
    EXPECT_EQ(a->AdvanceChainedWritePtr(1, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(1u, TraceCapture::TakeCount("can't advance"));

    // No space at all, or nothing asked for.
    CRtMessageBlock full(2, nullptr, 0, 2);
    for (unsigned long count : {1ul, 0ul}) {
        EXPECT_EQ(full.AdvanceChainedWritePtr(count, &n), RT_ERROR_PARTIAL_DATA);
        EXPECT_EQ(n, 0u);
        EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aCount > dwNeedWrite"));
    }

    CRtMessageBlock locked(4);
    locked.LockWriting();
    EXPECT_EQ(locked.AdvanceChainedWritePtr(2), RT_OK);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: RT_BIT_DISABLED(m_Flag, WRITE_LOCKED)"));
    EXPECT_EQ(locked.GetTopLevelLength(), 2u);
    delete a;
    delete b;
}

TEST(MessageBlockChainOps, DuplicatesShareOwnedDataAndCopyCallerMemory) {
    CRtMessageBlock* mb = MakeBlock("abcdef", 4);
    mb->AdvanceTopLevelReadPtr(2);
    mb->LockReading();
    CRtMessageBlock* dup = mb->DuplicateTopLevel();
    ASSERT_NE(dup, nullptr);
    EXPECT_EQ(dup->GetFlag(), static_cast<unsigned long>(CRtMessageBlock::DUPLICATED));
    EXPECT_EQ(dup->GetTopLevelReadPtr(), mb->GetTopLevelReadPtr() - 0);  // same bytes, no copy
    EXPECT_EQ(dup->GetTopLevelSpace(), 4u);
    delete mb;  // the duplicate keeps the data alive
    EXPECT_EQ(dup->FlattenChained(), "cdef");
    dup->DestroyChained();

    // Caller memory may go before the duplicate: it gets a copy, space included.
    char bytes[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
    mb = new CRtMessageBlock(sizeof(bytes), bytes, 0x40000, 6);
    mb->AdvanceTopLevelReadPtr(1);
    dup = mb->DuplicateTopLevel();
    ASSERT_NE(dup, nullptr);
    EXPECT_EQ(dup->GetFlag(), 0x40000ul | CRtMessageBlock::DUPLICATED);
    EXPECT_EQ(dup->GetTopLevelSpace(), 2u);
    delete mb;
    std::memset(bytes, 'z', sizeof(bytes));
    EXPECT_EQ(dup->AdvanceTopLevelWritePtr(2), RT_OK);
    EXPECT_EQ(dup->FlattenChained(), "bcdefgh");
    dup->DestroyChained();

    OwnedChain chain({"ab", "", "cde"});
    dup = chain.Head()->DuplicateChained();
    ASSERT_NE(dup, nullptr);
    EXPECT_EQ(ChainBlocks(dup), 3u);
    EXPECT_TRUE(AllDuplicated(dup));
    EXPECT_EQ(dup->GetNext()->GetNext()->GetTopLevelReadPtr(), chain[2]->GetTopLevelReadPtr());
    char out[8];
    EXPECT_EQ(dup->Read(out, 5), RT_OK);
    EXPECT_EQ(chain.Head()->FlattenChained(), "abcde");  // positions are the duplicate's own
    dup->DestroyChained();
}

TEST(MessageBlockChainOps, DisjointSplitsTheReadableBytesAndWarnsOfOwnedBlocks) {
    const struct {
        std::vector<std::string> texts;
        bool duplicate;  // split a duplicate of the chain instead
        unsigned long start;
        const char* kept;
        const char* rest;  // null: no chain comes back
        size_t restBlocks;
        size_t warnings;
    } kCases[] = {
        {{"01234567"}, false, 5, "01234", "567", 1, 0},
        {{"abc", "de"}, false, 0, "", "abcde", 2, 1},
        {{"abc", "de", "f"}, false, 3, "abc", "def", 2, 2},
        {{"abc", "de", "fgh"}, true, 4, "abcd", "efgh", 2, 0},
        {{"", "abc", "", "de"}, false, 0, "", "abcde", 3, 2},  // leading empties stay
        {{"ab", "", "cd"}, false, 2, "ab", "cd", 2, 2},
        {{"abc", "de"}, false, 5, "abcde", nullptr, 0, 0},
        {{"abc", "de"}, false, 6, "abcde", nullptr, 0, 0},  // refused: see below
    };
    const char kWarning[] =
        "CRtMessageBlock::Disjoint, there are not DUPLICATED blocks behind the disjointed block.";
    for (const auto& c : kCases) {
        SCOPED_TRACE(c.start);
        TraceCapture capture;
        OwnedChain chain(c.texts);
        CRtMessageBlock* head = c.duplicate ? chain.Head()->DuplicateChained() : chain.Head();
        CRtMessageBlock* rest = head->Disjoint(c.start);
        EXPECT_EQ(head->FlattenChained(), c.kept);
        if (c.rest) {
            ASSERT_NE(rest, nullptr);
            EXPECT_EQ(rest->FlattenChained(), c.rest);
            EXPECT_EQ(ChainBlocks(rest), c.restBlocks);
            EXPECT_TRUE(AllDuplicated(rest));
            rest->DestroyChained();
        } else {
            EXPECT_EQ(rest, nullptr);
        }
        EXPECT_EQ(TraceCapture::Count(kWarning), c.warnings);
        if (c.duplicate) {
            head->DestroyChained();
            EXPECT_EQ(chain.Head()->FlattenChained(), "abcdefgh");
        }
        if (c.start == 6) {
            EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aStart <= GetChainedLength()"));
        }
    }
    CRtMessageBlock empty(4);
    EXPECT_EQ(empty.Disjoint(0), nullptr);
}

TEST(MessageBlockChainOps, DisjointSharesBuffersAndCutsTheLinks) {
    TraceCapture capture;
    CRtMessageBlock* mb = MakeBlock("01234567");
    CRtMessageBlock* rest = mb->Disjoint(5);
    EXPECT_EQ(rest->GetTopLevelReadPtr(), mb->GetTopLevelReadPtr() + 5);
    // The kept part's space is the other part's data: both share one buffer.
    EXPECT_EQ(mb->GetTopLevelSpace(), 3u);
    EXPECT_EQ(mb->GetTopLevelWritePtr(), rest->GetTopLevelReadPtr());
    rest->DestroyChained();
    delete mb;

    OwnedChain chain({"abc", "de", "f"});
    rest = chain.Head()->Disjoint(3);
    EXPECT_EQ(rest->GetTopLevelReadPtr(), chain[1]->GetTopLevelReadPtr());
    EXPECT_EQ(chain.Head()->GetNext(), nullptr);
    rest->DestroyChained();
    rest = chain[1]->Disjoint(0);  // replaced by duplicates and detached
    EXPECT_EQ(chain[1]->GetNext(), nullptr);
    EXPECT_EQ(chain[2]->FlattenChained(), "f");
    rest->DestroyChained();

    // Spent blocks behind the data go with the result.
    OwnedChain data({"abc", "de"});
    CRtMessageBlock* spent = new CRtMessageBlock(4);
    data.Head()->Append(spent);
    rest = data.Head()->Disjoint(5);
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(rest->GetChainedSpace(), 4u);
    EXPECT_EQ(data[1]->GetNext(), nullptr);
    rest->DestroyChained();
    delete spent;
}

TEST(MessageBlockChainOps, DestroyChainedFreesOnlyDuplicatedBlocks) {
    TraceCapture capture;
    const char kOwned[] = "Assert failed: RT_BIT_ENABLED(pMbMove->m_Flag, DUPLICATED)";
    CRtMessageBlock* head = MakeBlock("head");
    CRtMessageBlock* dups = head->DuplicateChained();
    head->Append(dups);
    head->Append(dups->DuplicateChained());
    head->DestroyChained();  // frees the two duplicates; ASan proves no leak
    EXPECT_EQ(TraceCapture::TakeCount(kOwned), 1u);
    EXPECT_EQ(head->GetTopLevelLength(), 4u);
    delete head;

    // An owned block in the middle is traced and skipped; the walk goes on.
    CRtMessageBlock* source = MakeBlock("a");
    CRtMessageBlock* first = source->DuplicateTopLevel();
    delete source;
    CRtMessageBlock* middle = MakeBlock("b");
    first->Append(middle);
    first->Append(middle->DuplicateTopLevel());
    first->DestroyChained();
    EXPECT_EQ(TraceCapture::TakeCount(kOwned), 1u);
    EXPECT_EQ(middle->GetTopLevelLength(), 1u);
    delete middle;
}

TEST(MessageBlockChainOps, FillIovPointsIntoTheBlocksAndRefusesANullArray) {
    OwnedChain chain({"abcd", "", "efgh", "ij"});
    iovec iov[4] = {};
    EXPECT_EQ(chain.Head()->FillIov(iov, 2, 100), 2u);
    EXPECT_EQ(iov[0].iov_base, chain[0]->GetTopLevelReadPtr());  // no copy
    EXPECT_EQ(iov[1].iov_base, chain[2]->GetTopLevelReadPtr());
    EXPECT_EQ(chain.Head()->FillIov(iov, 0, 100), 0u);

    TraceCapture capture;
    EXPECT_EQ(chain.Head()->FillIov(nullptr, 4, 100), 0u);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aIov || aMax == 0"));
    EXPECT_EQ(chain.Head()->GetChainedLength(), 10u);  // nothing consumed
}

TEST(MessageBlockChainOps, SaveAndRewindLetAParserReadAhead) {
    TraceCapture capture;
    OwnedChain chain({"abc", "def"});
    chain.Head()->AdvanceChainedReadPtr(1);
    chain.Head()->SaveChainedReadPtr();
    chain.Head()->AdvanceChainedReadPtr(4);
    chain.Head()->RewindChained(TRUE);
    EXPECT_EQ(chain.Head()->FlattenChained(), "bcdef");
    EXPECT_TRUE(TraceCapture::Take().empty());

    // A block appended after the save has nothing to go back to.
    CRtMessageBlock* late = MakeBlock("gh");
    late->AdvanceTopLevelReadPtr(1);
    chain.Head()->Append(late);
    chain.Head()->RewindChained(TRUE);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: i->m_pSaveReadPtr"));
    EXPECT_EQ(chain.Head()->FlattenChained(), "bcdefh");

    chain.Head()->RewindChained(FALSE);
    EXPECT_EQ(chain.Head()->GetChainedLength(), 0u);
    EXPECT_EQ(chain.Head()->GetChainedSpace(), 8u);
    TraceCapture::Take();
    // Reads moved past the rewound writes are reported by the next walk.
    chain.Head()->SaveChainedReadPtr();
    EXPECT_GE(TraceCapture::TakeCount("Assert failed: i->m_pReadPtr <= i->m_pWritePtr"), 1u);

    // A save that lies past the write position is never restored.
    CRtMessageBlock* mb = MakeBlock("abcdef");
    mb->AdvanceTopLevelReadPtr(4);
    mb->SaveChainedReadPtr();
    CRtMessageBlock* rest = mb->Disjoint(0);  // mb keeps nothing: write = read
    mb->RewindChained(FALSE);
    mb->AdvanceTopLevelWritePtr(2);
    mb->RewindChained(TRUE);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: i->m_pSaveReadPtr <= i->m_pWritePtr"));
    EXPECT_EQ(mb->GetTopLevelLength(), 0u);
    EXPECT_EQ(mb->GetTopLevelReadPtr(), mb->GetTopLevelWritePtr() + 0);
    rest->DestroyChained();
    delete mb;
    delete late;
}
