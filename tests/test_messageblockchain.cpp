#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>

#include "messageblock_helpers.h"
#include "rtmessageblock.h"
#include "trace_capture.h"

TEST(MessageBlockChainOps, LengthSpaceAndAppend) {
    OwnedChain chain({"ab", "", "cde"});
    CRtMessageBlock* tail = new CRtMessageBlock(10, nullptr, 0, 3);
    chain.Head()->Append(tail);
    EXPECT_EQ(ChainBlocks(chain.Head()), 4u);
    EXPECT_EQ(chain[2]->GetNext(), tail);
    EXPECT_EQ(chain.Head()->GetChainedLength(), 8u);
    EXPECT_EQ(chain.Head()->GetChainedSpace(), 7u);
    EXPECT_EQ(chain[1]->GetChainedLength(), 6u);  // from the middle on
    delete tail;
}

TEST(MessageBlockChainOps, AppendingABlockAlreadyInTheChainIsRefused) {
    TraceCapture capture;
    OwnedChain chain({"ab", "cd", "ef"});
    chain.Head()->Append(chain[1]);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aMb != pMbMove"));
    chain.Head()->Append(chain.Head());
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aMb != pMbMove"));
    EXPECT_EQ(ChainBlocks(chain.Head()), 3u);  // no loop
    EXPECT_EQ(chain.Head()->FlattenChained(), "abcdef");

    chain.Head()->Append(nullptr);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aMb"));
    EXPECT_EQ(ChainBlocks(chain.Head()), 3u);
}

TEST(MessageBlockChainOps, AppendTracesABlockWithPositionsOutOfOrder) {
    TraceCapture capture;
    OwnedChain chain({"ab"});
    CRtMessageBlock* odd = MakeBlock("xyz");
    odd->AdvanceTopLevelReadPtr(2);
    odd->RewindChained(FALSE);
    TraceCapture::Take();
    chain.Head()->Append(odd);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aMb->m_pReadPtr <= aMb->m_pWritePtr"));
    EXPECT_EQ(chain.Head()->GetNext(), odd);
    delete odd;
}

TEST(MessageBlockChainOps, AdvanceChainedReadPtrSkipsAcrossBlocks) {
    OwnedChain chain({"abc", "", "defg"});
    unsigned long n = 99;
    EXPECT_EQ(chain.Head()->AdvanceChainedReadPtr(5, &n), RT_OK);
    EXPECT_EQ(n, 5u);
    EXPECT_EQ(chain.Head()->FlattenChained(), "fg");
    EXPECT_EQ(chain.Head()->AdvanceChainedReadPtr(3, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(chain.Head()->GetChainedLength(), 0u);
}

TEST(MessageBlockChainOps, AdvanceChainedWritePtrFillsBlocksInOrder) {
    TraceCapture capture;
    CRtMessageBlock* a = new CRtMessageBlock(6);
    CRtMessageBlock* b = new CRtMessageBlock(6);
    a->Append(b);
    unsigned long n = 99;
    EXPECT_EQ(a->AdvanceChainedWritePtr(10, &n), RT_OK);
    EXPECT_EQ(n, 10u);
    EXPECT_EQ(a->GetTopLevelLength(), 6u);
    EXPECT_EQ(b->GetTopLevelLength(), 4u);
    EXPECT_EQ(a->AdvanceChainedWritePtr(5, &n), RT_ERROR_PARTIAL_DATA);  // 2 bytes left
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(b->GetTopLevelSpace(), 0u);
    EXPECT_TRUE(TraceCapture::Take().empty());

    EXPECT_EQ(a->AdvanceChainedWritePtr(1, &n), RT_ERROR_PARTIAL_DATA);  // no space at all
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aCount > dwNeedWrite"));
    EXPECT_EQ(a->AdvanceChainedWritePtr(0, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aCount > dwNeedWrite"));
    delete a;
    delete b;
}

TEST(MessageBlockChainOps, AdvanceChainedWritePtrStopsAtABlockThatWasReadFrom) {
    TraceCapture capture;
    CRtMessageBlock* a = new CRtMessageBlock(4, nullptr, 0, 2);
    CRtMessageBlock* b = new CRtMessageBlock(4, nullptr, 0, 2);
    a->Append(b);
    b->AdvanceTopLevelReadPtr(1);
    unsigned long n = 99;
    EXPECT_EQ(a->AdvanceChainedWritePtr(4, &n), RT_ERROR_PARTIAL_DATA);
    EXPECT_EQ(n, 2u);  // a's space was filled before b was met
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
    delete a;
    delete b;
}

TEST(MessageBlockChainOps, WriteLockedHeadIsTracedWhenAdvancingWrites) {
    TraceCapture capture;
    CRtMessageBlock a(4);
    a.LockWriting();
    EXPECT_EQ(a.AdvanceChainedWritePtr(2), RT_OK);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: RT_BIT_DISABLED(m_Flag, WRITE_LOCKED)"));
    EXPECT_EQ(a.GetTopLevelLength(), 2u);
}

TEST(MessageBlockChainOps, DuplicateTopLevelSharesTheDataBlock) {
    CRtMessageBlock* mb = MakeBlock("abcdef", 4);
    mb->AdvanceTopLevelReadPtr(2);
    mb->LockReading();
    CRtMessageBlock* dup = mb->DuplicateTopLevel();
    ASSERT_NE(dup, nullptr);
    EXPECT_EQ(dup->GetFlag(), static_cast<unsigned long>(CRtMessageBlock::DUPLICATED));
    EXPECT_EQ(dup->GetTopLevelReadPtr(), mb->GetTopLevelReadPtr() - 0);  // same bytes, no copy
    EXPECT_EQ(dup->GetTopLevelLength(), 4u);
    EXPECT_EQ(dup->GetTopLevelSpace(), 4u);
    EXPECT_EQ(dup->GetNext(), nullptr);

    // The duplicate keeps the data alive after the original goes.
    delete mb;
    EXPECT_EQ(dup->FlattenChained(), "cdef");
    dup->DestroyChained();
}

TEST(MessageBlockChainOps, DuplicateOfCallerMemoryIsAnOwnedCopy) {
    char bytes[8] = {'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h'};
    CRtMessageBlock* mb = new CRtMessageBlock(sizeof(bytes), bytes, 0x40000, 6);
    mb->AdvanceTopLevelReadPtr(1);
    CRtMessageBlock* dup = mb->DuplicateTopLevel();
    ASSERT_NE(dup, nullptr);
    EXPECT_EQ(dup->GetFlag(), 0x40000ul | CRtMessageBlock::DUPLICATED);
    EXPECT_NE(dup->GetTopLevelReadPtr(), mb->GetTopLevelReadPtr());
    EXPECT_EQ(dup->GetTopLevelLength(), 5u);
    EXPECT_EQ(dup->GetTopLevelSpace(), 2u);
    delete mb;
    std::memset(bytes, 'z', sizeof(bytes));
    EXPECT_EQ(dup->FlattenChained(), "bcdef");
    // The space was copied too: advancing reveals the caller's old bytes.
    EXPECT_EQ(dup->AdvanceTopLevelWritePtr(2), RT_OK);
    EXPECT_EQ(dup->FlattenChained(), "bcdefgh");
    dup->DestroyChained();
}

TEST(MessageBlockChainOps, DuplicateChainedKeepsOrderAndSharesData) {
    OwnedChain chain({"ab", "", "cde"});
    CRtMessageBlock* dup = chain.Head()->DuplicateChained();
    ASSERT_NE(dup, nullptr);
    EXPECT_EQ(ChainBlocks(dup), 3u);
    EXPECT_TRUE(AllDuplicated(dup));
    EXPECT_EQ(dup->FlattenChained(), "abcde");
    EXPECT_EQ(dup->GetNext()->GetNext()->GetTopLevelReadPtr(), chain[2]->GetTopLevelReadPtr());

    // Reading the duplicate leaves the original's positions alone.
    char out[8];
    EXPECT_EQ(dup->Read(out, 5), RT_OK);
    EXPECT_EQ(chain.Head()->FlattenChained(), "abcde");
    dup->DestroyChained();
}

TEST(MessageBlockChainOps, DuplicatesMayBeReleasedOnAnotherThread) {
    const int kRounds = 200;
    OwnedChain chain({"0123456789", "abcdefghij", "ABCDEFGHIJ"});
    for (int i = 0; i < kRounds; ++i) {
        CRtMessageBlock* dup1 = chain.Head()->DuplicateChained();
        CRtMessageBlock* dup2 = dup1->DuplicateChained();
        ASSERT_NE(dup2, nullptr);
        std::thread other([dup1] {
            EXPECT_EQ(dup1->GetChainedLength(), 30u);
            dup1->DestroyChained();
        });
        EXPECT_EQ(dup2->FlattenChained().size(), 30u);
        dup2->DestroyChained();
        other.join();
    }
    EXPECT_EQ(chain.Head()->FlattenChained(), "0123456789abcdefghijABCDEFGHIJ");

    // The last reference may go on the other thread, after the host's block.
    CRtMessageBlock* owned = MakeBlock("last");
    CRtMessageBlock* dup = owned->DuplicateChained();
    delete owned;
    std::string seen;
    std::thread([dup, &seen] {
        seen = dup->FlattenChained();
        dup->DestroyChained();
    }).join();
    EXPECT_EQ(seen, "last");
}

TEST(MessageBlockChainOps, DisjointInsideASingleBlockSharesItsData) {
    CRtMessageBlock* mb = MakeBlock("01234567");
    CRtMessageBlock* rest = mb->Disjoint(5);
    ASSERT_NE(rest, nullptr);
    EXPECT_TRUE(IsDuplicated(rest));
    EXPECT_EQ(rest->FlattenChained(), "567");
    EXPECT_EQ(rest->GetTopLevelReadPtr(), mb->GetTopLevelReadPtr() + 5);
    EXPECT_EQ(mb->FlattenChained(), "01234");
    EXPECT_EQ(mb->GetNext(), nullptr);
    // The kept part's space is the other part's data: both share one buffer.
    EXPECT_EQ(mb->GetTopLevelSpace(), 3u);
    EXPECT_EQ(mb->GetTopLevelWritePtr(), rest->GetTopLevelReadPtr());
    rest->DestroyChained();
    delete mb;
}

TEST(MessageBlockChainOps, DisjointAtZeroTakesTheWholeChain) {
    TraceCapture capture;
    OwnedChain chain({"abc", "de"});
    CRtMessageBlock* rest = chain.Head()->Disjoint(0);
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(rest->FlattenChained(), "abcde");
    EXPECT_TRUE(AllDuplicated(rest));
    EXPECT_EQ(chain.Head()->GetTopLevelLength(), 0u);
    EXPECT_EQ(chain.Head()->GetNext(), nullptr);
    EXPECT_EQ(chain[1]->GetNext(), nullptr);  // replaced and detached
    EXPECT_EQ(chain[1]->FlattenChained(), "de");
    EXPECT_EQ(
        TraceCapture::TakeCount("CRtMessageBlock::Disjoint, there are not DUPLICATED blocks behind "
                                "the disjointed block."),
        1u);
    rest->DestroyChained();
}

TEST(MessageBlockChainOps, DisjointAtABoundaryCutsTheLinkAndDuplicatesOwnedBlocks) {
    TraceCapture capture;
    OwnedChain chain({"abc", "de", "f"});
    CRtMessageBlock* rest = chain.Head()->Disjoint(3);
    ASSERT_NE(rest, nullptr);
    EXPECT_NE(rest, chain[1]);
    EXPECT_TRUE(AllDuplicated(rest));
    EXPECT_EQ(ChainBlocks(rest), 2u);
    EXPECT_EQ(rest->FlattenChained(), "def");
    EXPECT_EQ(rest->GetTopLevelReadPtr(), chain[1]->GetTopLevelReadPtr());  // shared, not copied
    EXPECT_EQ(chain.Head()->GetNext(), nullptr);
    EXPECT_EQ(chain.Head()->FlattenChained(), "abc");
    EXPECT_EQ(TraceCapture::TakeCount("there are not DUPLICATED blocks"), 2u);
    rest->DestroyChained();
}

TEST(MessageBlockChainOps, DisjointOfADuplicatedChainHandsBlocksOverWithoutWarnings) {
    TraceCapture capture;
    OwnedChain chain({"abc", "de", "fgh"});
    CRtMessageBlock* dup = chain.Head()->DuplicateChained();
    CRtMessageBlock* second = dup->GetNext();
    CRtMessageBlock* rest = dup->Disjoint(4);  // inside "de"
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(rest->FlattenChained(), "efgh");
    EXPECT_EQ(dup->FlattenChained(), "abcd");
    EXPECT_EQ(second->GetNext(), nullptr);
    EXPECT_EQ(ChainBlocks(rest), 2u);
    EXPECT_TRUE(TraceCapture::Take().empty());
    rest->DestroyChained();
    dup->DestroyChained();
    EXPECT_EQ(chain.Head()->FlattenChained(), "abcdefgh");
}

TEST(MessageBlockChainOps, DisjointAtTheEndReturnsWhatFollowsTheData) {
    OwnedChain chain({"abc", "de"});
    EXPECT_EQ(chain.Head()->Disjoint(5), nullptr);
    EXPECT_EQ(chain.Head()->GetNext(), chain[1]);
    EXPECT_EQ(chain.Head()->FlattenChained(), "abcde");

    // Spent blocks behind the data go with the result.
    CRtMessageBlock* spent = new CRtMessageBlock(4);
    chain.Head()->Append(spent);
    CRtMessageBlock* rest = chain.Head()->Disjoint(5);
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(rest->GetChainedLength(), 0u);
    EXPECT_EQ(rest->GetChainedSpace(), 4u);
    EXPECT_EQ(chain[1]->GetNext(), nullptr);
    rest->DestroyChained();
    delete spent;
}

TEST(MessageBlockChainOps, DisjointPastTheLengthChangesNothing) {
    TraceCapture capture;
    OwnedChain chain({"abc", "de"});
    EXPECT_EQ(chain.Head()->Disjoint(6), nullptr);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aStart <= GetChainedLength()"));
    EXPECT_EQ(chain.Head()->FlattenChained(), "abcde");
    EXPECT_EQ(chain.Head()->GetNext(), chain[1]);

    CRtMessageBlock empty(4);
    EXPECT_EQ(empty.Disjoint(0), nullptr);
}

TEST(MessageBlockChainOps, DisjointSkipsEmptyBlocksBeforeTheSplit) {
    OwnedChain chain({"", "abc", "", "de"});
    CRtMessageBlock* rest = chain.Head()->Disjoint(0);
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(rest->FlattenChained(), "abcde");
    EXPECT_EQ(ChainBlocks(rest), 3u);
    EXPECT_EQ(chain.Head()->GetNext(), chain[1]);
    EXPECT_EQ(chain[1]->GetNext(), nullptr);
    rest->DestroyChained();

    OwnedChain second({"ab", "", "cd"});
    rest = second.Head()->Disjoint(2);  // the boundary comes before the empty block
    ASSERT_NE(rest, nullptr);
    EXPECT_EQ(ChainBlocks(rest), 2u);
    EXPECT_EQ(rest->FlattenChained(), "cd");
    rest->DestroyChained();
}

TEST(MessageBlockChainOps, DestroyChainedFreesOnlyDuplicatedBlocks) {
    TraceCapture capture;
    CRtMessageBlock* head = MakeBlock("head");
    CRtMessageBlock* dups = head->DuplicateChained();
    head->Append(dups);
    head->Append(dups->DuplicateChained());
    head->DestroyChained();  // frees the two duplicates; ASan proves no leak
    EXPECT_EQ(TraceCapture::TakeCount("Assert failed: RT_BIT_ENABLED(pMbMove->m_Flag, DUPLICATED)"),
              1u);
    EXPECT_EQ(head->GetTopLevelLength(), 4u);
    delete head;

    // An owned block in the middle is traced and skipped; the walk goes on.
    CRtMessageBlock* source = MakeBlock("a");
    CRtMessageBlock* first = source->DuplicateTopLevel();
    delete source;
    CRtMessageBlock* middle = MakeBlock("b");
    CRtMessageBlock* last = middle->DuplicateTopLevel();
    first->Append(middle);
    first->Append(last);
    first->DestroyChained();
    EXPECT_EQ(TraceCapture::TakeCount("RT_BIT_ENABLED(pMbMove->m_Flag, DUPLICATED)"), 1u);
    EXPECT_EQ(middle->GetTopLevelLength(), 1u);
    delete middle;
}

TEST(MessageBlockChainOps, ReclaimGarbageDropsSpentDuplicatesAtTheFront) {
    OwnedChain chain({"ab", "cd", "ef"});
    CRtMessageBlock* dup = chain.Head()->DuplicateChained();
    CRtMessageBlock* third = dup->GetNext()->GetNext();
    dup->AdvanceChainedReadPtr(5);
    CRtMessageBlock* head = dup->ReclaimGarbage();
    EXPECT_EQ(head, third);
    EXPECT_EQ(head->FlattenChained(), "f");
    head->AdvanceChainedReadPtr(1);
    EXPECT_EQ(head->ReclaimGarbage(), nullptr);

    // Spent blocks the host owns are passed over, not freed.
    chain.Head()->AdvanceChainedReadPtr(3);
    EXPECT_EQ(chain.Head()->ReclaimGarbage(), chain[1]);
    EXPECT_EQ(chain.Head()->GetNext(), chain[1]);
}

TEST(MessageBlockChainOps, FillIovRespectsEntryAndByteLimits) {
    OwnedChain chain({"abcd", "", "efgh", "ij"});
    iovec iov[4] = {};
    EXPECT_EQ(chain.Head()->FillIov(iov, 2, 100), 2u);
    EXPECT_EQ(iov[0].iov_base, chain[0]->GetTopLevelReadPtr());
    EXPECT_EQ(iov[0].iov_len, 4u);
    EXPECT_EQ(iov[1].iov_base, chain[2]->GetTopLevelReadPtr());  // the empty block takes no entry
    EXPECT_EQ(iov[1].iov_len, 4u);

    EXPECT_EQ(chain.Head()->FillIov(iov, 4, 5), 2u);
    EXPECT_EQ(iov[0].iov_len, 4u);
    EXPECT_EQ(iov[1].iov_len, 1u);
    EXPECT_EQ(chain.Head()->FillIov(iov, 4, 8), 2u) << "a limit that ends with a block";
    EXPECT_EQ(iov[1].iov_len, 4u);
    EXPECT_EQ(chain.Head()->FillIov(iov, 4, 100), 3u);
    EXPECT_EQ(std::string(static_cast<char*>(iov[2].iov_base), iov[2].iov_len), "ij");
    EXPECT_EQ(chain.Head()->FillIov(iov, 4, 0), 0u);
    EXPECT_EQ(chain.Head()->FillIov(iov, 0, 100), 0u);
    EXPECT_EQ(chain.Head()->GetChainedLength(), 10u);  // nothing consumed

    chain.Head()->AdvanceChainedReadPtr(5);
    EXPECT_EQ(chain.Head()->FillIov(iov, 4, 100), 2u);
    EXPECT_EQ(std::string(static_cast<char*>(iov[0].iov_base), iov[0].iov_len), "fgh");

    TraceCapture capture;
    EXPECT_EQ(chain.Head()->FillIov(nullptr, 4, 100), 0u);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: aIov || aMax == 0"));
}

TEST(MessageBlockChainOps, SaveAndRewindLetAParserReadAhead) {
    TraceCapture capture;
    OwnedChain chain({"abc", "def"});
    chain.Head()->AdvanceChainedReadPtr(1);
    chain.Head()->SaveChainedReadPtr();
    chain.Head()->AdvanceChainedReadPtr(4);
    EXPECT_EQ(chain.Head()->FlattenChained(), "f");
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
    EXPECT_EQ(chain[1]->GetTopLevelReadPtr(), chain[1]->GetTopLevelWritePtr() + 0);
    TraceCapture::Take();
    // Reads moved past the rewound writes are reported by the next walk.
    chain.Head()->SaveChainedReadPtr();
    EXPECT_GE(TraceCapture::TakeCount("Assert failed: i->m_pReadPtr <= i->m_pWritePtr"), 1u);
    delete late;
}

TEST(MessageBlockChainOps, RewindingReadsNeverPassesTheWritePosition) {
    TraceCapture capture;
    CRtMessageBlock* mb = MakeBlock("abcdef");
    mb->AdvanceTopLevelReadPtr(4);
    mb->SaveChainedReadPtr();
    CRtMessageBlock* rest = mb->Disjoint(0);  // mb keeps nothing: write = read
    mb->AdvanceTopLevelWritePtr(0);
    mb->RewindChained(FALSE);
    mb->AdvanceTopLevelWritePtr(2);
    mb->RewindChained(TRUE);  // the save lies past the write position now
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: i->m_pSaveReadPtr <= i->m_pWritePtr"));
    EXPECT_EQ(mb->GetTopLevelLength(), 0u);
    EXPECT_EQ(mb->GetTopLevelReadPtr(), mb->GetTopLevelWritePtr() + 0);
    rest->DestroyChained();
    delete mb;
}

TEST(MessageBlockChainOps, FlattenChainedJoinsReadableBytesInOrder) {
    OwnedChain chain({"", "ab", "", "cde", ""});
    EXPECT_EQ(chain.Head()->FlattenChained(), "abcde");
    chain.Head()->AdvanceChainedReadPtr(3);
    EXPECT_EQ(chain.Head()->FlattenChained(), "de");
    EXPECT_EQ(chain.Head()->GetChainedLength(), 2u);

    std::string binary("a\0b\xff", 4);
    CRtMessageBlock* mb = MakeBlock(binary);
    EXPECT_EQ(mb->FlattenChained(), binary);
    delete mb;
}
