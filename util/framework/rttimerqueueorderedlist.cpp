// The timer storage: an indexed 4-ary heap plus a handler index.
#include "rttimerqueueorderedlist.h"

#include <algorithm>

#include "rtdebug.h"

namespace {

// Four children per node halves the heap's depth against a binary heap, and
// the four siblings share a cache line or two; pops and re-arms get cheaper.
constexpr size_t kArity = 4;

int64_t ToUsec(const CRtTimeValue& aTv) {
    return static_cast<int64_t>(aTv.GetSec()) * 1000000 + aTv.GetUsec();
}

}  // namespace

// ---- CHandlerIndex ---------------------------------------------------------

size_t CRtTimerQueueOrderedList::CHandlerIndex::Home(const IRtTimerHandler* aEh) const {
    // Fibonacci hashing: handler addresses differ mostly in their middle bits,
    // which the multiplication spreads into the top bits kept here.
    uint64_t llKey = static_cast<uint64_t>(reinterpret_cast<uintptr_t>(aEh));
    return static_cast<size_t>((llKey * 0x9E3779B97F4A7C15ull) >> m_nShift);
}

void CRtTimerQueueOrderedList::CHandlerIndex::MakeRoom() {
    // At most half full, so probe runs stay short and a free entry always exists.
    if ((m_dwSize + 1) * 2 > m_Entries.size()) {
        Grow();
    }
}

uint32_t* CRtTimerQueueOrderedList::CHandlerIndex::FindOrAdd(IRtTimerHandler* aEh, bool& aAdded) {
    MakeRoom();
    size_t dwMask = m_Entries.size() - 1;
    size_t i = Home(aEh);
    while (m_Entries[i].m_pEh && m_Entries[i].m_pEh != aEh) {
        i = (i + 1) & dwMask;
    }
    aAdded = !m_Entries[i].m_pEh;
    if (aAdded) {
        m_Entries[i] = CEntry{aEh, kNone};
        ++m_dwSize;
    }
    return &m_Entries[i].m_dwSlot;
}

uint32_t CRtTimerQueueOrderedList::CHandlerIndex::Erase(const IRtTimerHandler* aEh) {
    if (m_dwSize == 0) {
        return kNone;
    }
    size_t dwMask = m_Entries.size() - 1;
    size_t i = Home(aEh);
    while (m_Entries[i].m_pEh != aEh) {
        if (!m_Entries[i].m_pEh) {
            return kNone;
        }
        i = (i + 1) & dwMask;
    }
    uint32_t dwSlot = m_Entries[i].m_dwSlot;

    // Backward-shift deletion: pull later members of the probe run into the
    // hole when that brings them no further from home, so lookups never need
    // tombstones.
    size_t dwHole = i;
    for (size_t j = (i + 1) & dwMask; m_Entries[j].m_pEh; j = (j + 1) & dwMask) {
        size_t dwHome = Home(m_Entries[j].m_pEh);
        // The entry may move if its home does not lie cyclically in (hole, j].
        if (((j - dwHome) & dwMask) >= ((j - dwHole) & dwMask)) {
            m_Entries[dwHole] = m_Entries[j];
            dwHole = j;
        }
    }
    m_Entries[dwHole].m_pEh = nullptr;
    --m_dwSize;
    return dwSlot;
}

void CRtTimerQueueOrderedList::CHandlerIndex::Grow() {
    size_t dwCapacity = m_Entries.empty() ? 16 : m_Entries.size() * 2;
    // Allocated before anything changes, so a failure leaves the index whole.
    std::vector<CEntry> old(dwCapacity, CEntry{nullptr, 0});
    old.swap(m_Entries);
    m_nShift = 64;
    for (size_t n = dwCapacity; n > 1; n >>= 1) {
        --m_nShift;
    }
    // Every handler is distinct and the table has room: each goes to the
    // first free entry from its home.
    const size_t dwMask = dwCapacity - 1;
    for (const CEntry& entry : old) {
        if (entry.m_pEh) {
            size_t i = Home(entry.m_pEh);
            while (m_Entries[i].m_pEh) {
                i = (i + 1) & dwMask;
            }
            m_Entries[i] = entry;
        }
    }
}

// ---- The heap ----------------------------------------------------------------

CRtTimerQueueOrderedList::CRtTimerQueueOrderedList(IRtObserver* aObserver)
    : CRtTimerQueueBase(aObserver) {}

CRtTimerQueueOrderedList::~CRtTimerQueueOrderedList() = default;

void CRtTimerQueueOrderedList::SiftUp_i(size_t aPos) {
    CHeapEntry entry = m_Nodes[aPos];
    while (aPos > 0) {
        size_t dwParent = (aPos - 1) / kArity;
        if (!Before(entry, m_Nodes[dwParent])) {
            break;
        }
        Place_i(aPos, m_Nodes[dwParent]);
        aPos = dwParent;
    }
    Place_i(aPos, entry);
}

size_t CRtTimerQueueOrderedList::EarliestChild_i(size_t aPos, size_t aSize) const {
    size_t dwFirst = aPos * kArity + 1;
    if (dwFirst >= aSize) {
        return 0;  // a leaf: the root is never anyone's child
    }
    size_t dwLast = dwFirst + kArity < aSize ? dwFirst + kArity : aSize;
    size_t dwBest = dwFirst;
    for (size_t c = dwFirst + 1; c < dwLast; ++c) {
        if (Before(m_Nodes[c], m_Nodes[dwBest])) {
            dwBest = c;
        }
    }
    return dwBest;
}

void CRtTimerQueueOrderedList::SiftDown_i(size_t aPos) {
    CHeapEntry entry = m_Nodes[aPos];
    const size_t dwSize = m_Nodes.size();
    for (;;) {
        size_t dwBest = EarliestChild_i(aPos, dwSize);
        if (dwBest == 0 || !Before(m_Nodes[dwBest], entry)) {
            break;
        }
        Place_i(aPos, m_Nodes[dwBest]);
        aPos = dwBest;
    }
    Place_i(aPos, entry);
}

void CRtTimerQueueOrderedList::RemoveAt_i(size_t aPos) {
    // The caller has taken the timer out of the handler index already.
    m_FreeSlots.push_back(m_Nodes[aPos].m_dwSlot);

    CHeapEntry last = m_Nodes.back();
    m_Nodes.pop_back();
    const size_t dwSize = m_Nodes.size();
    if (aPos == dwSize) {
        return;
    }
    // Bottom-up: walk the hole down to a leaf along the earliest children,
    // then let the old last entry rise from there. The last entry usually
    // belongs near the bottom, so this saves a comparison per level.
    size_t dwHole = aPos;
    for (;;) {
        size_t dwBest = EarliestChild_i(dwHole, dwSize);
        if (dwBest == 0) {
            break;
        }
        Place_i(dwHole, m_Nodes[dwBest]);
        dwHole = dwBest;
    }
    m_Nodes[dwHole] = last;
    SiftUp_i(dwHole);
}

uint32_t CRtTimerQueueOrderedList::NextSeq_i() {
    if (m_dwNextSeq >= m_dwSeqLimit) {
        Renumber_i();
    }
    return m_dwNextSeq++;
}

void CRtTimerQueueOrderedList::Renumber_i() {
    // A sorted array is a valid heap. Numbering it downwards from the front
    // keeps every tie in its order, and leaves room for 4 billion pushes more.
    std::sort(m_Nodes.begin(), m_Nodes.end(), Before);
    const size_t dwSize = m_Nodes.size();
    for (size_t i = 0; i < dwSize; ++i) {
        m_Nodes[i].m_dwSeq = static_cast<uint32_t>(dwSize - i);
        m_HeapPos[m_Nodes[i].m_dwSlot] = static_cast<uint32_t>(i);
    }
    m_dwNextSeq = static_cast<uint32_t>(dwSize + 1);
}

bool CRtTimerQueueOrderedList::Store_i(const CNode& aNode) {
    // Every push takes a fresh, larger sequence number: among equal due times
    // the node pushed last goes first, for new and re-armed timers alike.
    CHeapEntry entry{ToUsec(aNode.m_tvExpired), NextSeq_i(), 0};

    // One probe of the index for both cases.
    bool bAdded;
    uint32_t* pIndexSlot = m_Index.FindOrAdd(aNode.m_pEh, bAdded);
    uint32_t dwSlot = *pIndexSlot;
    if (!bAdded) {
        // Re-arm in place: the heap entry moves, the slot and index stay.
        m_Slots[dwSlot] = aNode;
        entry.m_dwSlot = dwSlot;
        size_t dwPos = m_HeapPos[dwSlot];
        bool bEarlier = Before(entry, m_Nodes[dwPos]);
        m_Nodes[dwPos] = entry;
        if (bEarlier) {
            SiftUp_i(dwPos);
        } else {
            SiftDown_i(dwPos);
        }
        return true;
    }

    if (m_FreeSlots.empty()) {
        dwSlot = static_cast<uint32_t>(m_Slots.size());
        m_Slots.push_back(aNode);
        m_HeapPos.push_back(0);
    } else {
        dwSlot = m_FreeSlots.back();
        m_FreeSlots.pop_back();
        m_Slots[dwSlot] = aNode;
    }
    *pIndexSlot = dwSlot;
    entry.m_dwSlot = dwSlot;
    m_Nodes.push_back(entry);
    SiftUp_i(m_Nodes.size() - 1);
    return false;
}

namespace {

// Room for one more element, growing geometrically as push_back would.
template <class V>
void RoomForOneMore(V& aVector, size_t aSize) {
    if (aSize >= aVector.capacity()) {
        aVector.reserve(std::max<size_t>(16, aVector.capacity() * 2));
    }
}

}  // namespace

bool CRtTimerQueueOrderedList::MakeRoom_i() {
    // Every allocation a new timer may need happens here, before anything
    // changes; popping and erasing never allocate after it.
    try {
        RoomForOneMore(m_Nodes, m_Nodes.size());
        if (m_FreeSlots.empty()) {
            RoomForOneMore(m_Slots, m_Slots.size());
            RoomForOneMore(m_HeapPos, m_HeapPos.size());
        }
        RoomForOneMore(m_FreeSlots, m_Slots.size());
        m_Index.MakeRoom();
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

int CRtTimerQueueOrderedList::PushNode_l(const CNode& aNode) {
    RT_ASSERTE_RETURN(aNode.m_pEh, -1);
    if (!MakeRoom_i()) {
        RT_ERROR_TRACE("CRtTimerQueueOrderedList::PushNode_l, out of memory. size="
                       << m_Nodes.size() << " this=" << this);
        return kNoMemory;
    }
    return Store_i(aNode) ? 1 : 0;
}

int CRtTimerQueueOrderedList::RePushNode_l(const CNode& aNode) {
    RT_ASSERTE_RETURN(aNode.m_pEh, -1);
    bool bReplaced = Store_i(aNode);
    RT_ASSERTE(!bReplaced);
    return 0;
}

int CRtTimerQueueOrderedList::EraseNode_l(IRtTimerHandler* aEh) {
    uint32_t dwSlot = m_Index.Erase(aEh);
    if (dwSlot == kNone) {
        return 1;
    }
    RemoveAt_i(m_HeapPos[dwSlot]);
    return 0;
}

int CRtTimerQueueOrderedList::PopFirstNode_l(CNode& aNode) {
    RT_ASSERTE_RETURN(!m_Nodes.empty(), -1);
    aNode = m_Slots[m_Nodes.front().m_dwSlot];
    m_Index.Erase(aNode.m_pEh);
    RemoveAt_i(0);
    return 0;
}

int CRtTimerQueueOrderedList::GetEarliestTime_l(CRtTimeValue& aTime) {
    if (m_Nodes.empty()) {
        return -1;
    }
    aTime = m_Slots[m_Nodes.front().m_dwSlot].m_tvExpired;
    return 0;
}
