// CRtTimerQueueOrderedList: the timer queue the library gives every thread
// that runs an event loop. Hosts create one only for a loop of their own; the
// library's threads and reactors create theirs.
#ifndef RTTIMERQUEUEORDEREDLIST_H
#define RTTIMERQUEUEORDEREDLIST_H

#include <cstddef>
#include <cstdint>
#include <vector>

#include "rttimerqueuebase.h"

// Keeps the timers ordered by (due time, newest push first), the order in
// which CheckExpire fires them. A connection-per-timer host holds 100,000
// timers, so the order is kept in an indexed 4-ary heap rather than a sorted
// list: schedule, cancel and re-arm cost O(log n), peeking at the earliest
// timer O(1). An increasing push sequence breaks ties, so the heap hands
// timers out in exactly the order a sorted list would; before the 32-bit
// sequence runs out the stored timers are renumbered in their current order.
//
// Owns its nodes; deleting the queue drops them without calling any handler.
// Thread rules: those of CRtTimerQueueBase (owner thread only).
class RT_API CRtTimerQueueOrderedList : public CRtTimerQueueBase {
public:
    explicit CRtTimerQueueOrderedList(IRtObserver* aObserver);
    ~CRtTimerQueueOrderedList() override;

protected:
    int PushNode_l(const CNode& aNode) override;
    int EraseNode_l(IRtTimerHandler* aEh) override;
    int RePushNode_l(const CNode& aNode) override;
    int PopFirstNode_l(CNode& aNode) override;
    int GetEarliestTime_l(CRtTimeValue& aTime) override;

    // Renumbering is rare in real use (once per 4 billion pushes); tests
    // lower the limit to exercise it.
    void SetSequenceLimit_i(uint32_t aLimit) { m_dwSeqLimit = aLimit; }

private:
    static constexpr uint32_t kNone = 0xFFFFFFFFu;

    // One heap element, 16 bytes so that four siblings share a cache line.
    struct CHeapEntry {
        int64_t m_llDue;    // m_tvExpired in microseconds
        uint32_t m_dwSeq;   // larger: pushed later, goes first among equal due times
        uint32_t m_dwSlot;  // index into m_Slots and m_HeapPos
    };

    // Handler address -> slot index: open addressing with linear probing.
    class CHandlerIndex {
    public:
        // aEh's slot, added (holding kNone, aAdded set) when absent. May
        // throw std::bad_alloc unless room was made before.
        uint32_t* FindOrAdd(IRtTimerHandler* aEh, bool& aAdded);
        // Grows for one more handler now; may throw std::bad_alloc.
        void MakeRoom();
        uint32_t Erase(const IRtTimerHandler* aEh);  // the slot, or kNone

    private:
        struct CEntry {
            IRtTimerHandler* m_pEh;  // null: free
            uint32_t m_dwSlot;
        };
        size_t Home(const IRtTimerHandler* aEh) const;
        void Grow();

        std::vector<CEntry> m_Entries;  // size 0 or a power of two
        size_t m_dwSize = 0;
        unsigned m_nShift = 64;
    };

    static bool Before(const CHeapEntry& aLeft, const CHeapEntry& aRight) {
        return aLeft.m_llDue < aRight.m_llDue ||
               (aLeft.m_llDue == aRight.m_llDue && aLeft.m_dwSeq > aRight.m_dwSeq);
    }

    // Stores aNode in a new slot (its handler absent) or over its handler's
    // slot; true if it replaced one.
    bool Store_i(const CNode& aNode);
    // Reserves what one more timer needs; false without memory.
    bool MakeRoom_i();
    uint32_t NextSeq_i();
    void Renumber_i();
    void Place_i(size_t aPos, const CHeapEntry& aEntry) {
        m_Nodes[aPos] = aEntry;
        m_HeapPos[aEntry.m_dwSlot] = static_cast<uint32_t>(aPos);
    }
    void SiftUp_i(size_t aPos);
    // The position of aPos's earliest child among the first aSize entries, or
    // 0 when aPos is a leaf.
    size_t EarliestChild_i(size_t aPos, size_t aSize) const;
    void SiftDown_i(size_t aPos);
    // Heap position of a timer already out of the handler index; frees its slot.
    void RemoveAt_i(size_t aPos);

    std::vector<CHeapEntry> m_Nodes;  // the heap: m_Nodes[0] is due first
    // Per slot: the timer, and where its entry sits in the heap. Positions are
    // kept apart from the nodes because every heap move writes one.
    std::vector<CNode> m_Slots;
    std::vector<uint32_t> m_HeapPos;
    std::vector<uint32_t> m_FreeSlots;
    CHandlerIndex m_Index;
    uint32_t m_dwNextSeq = 0;
    uint32_t m_dwSeqLimit = 0xFFFFFFFFu;
};

#endif  // RTTIMERQUEUEORDEREDLIST_H
