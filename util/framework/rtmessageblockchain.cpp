// The operations on whole chains of message blocks: measuring, appending,
// advancing, duplicating, splitting, gathering, rewinding, reclaiming,
// flattening and destroying. Walks use the inline counts: the exported
// per-block getters are out-of-line calls that cost more than the rest of a
// step.
#include <cstring>
#include <new>

#include "rtmessageblock.h"

// Traces each of the three position checks of block pointer p that fails; the
// traces name p as the caller wrote it.
#define RT_MB_CHECK_POSITIONS(p)                     \
    do {                                             \
        RT_ASSERTE(p->m_pBeginPtr <= p->m_pReadPtr); \
        RT_ASSERTE(p->m_pReadPtr <= p->m_pWritePtr); \
        RT_ASSERTE(p->m_pWritePtr <= p->m_pEndPtr);  \
    } while (0)

unsigned long CRtMessageBlock::GetChainedLength() const {
    unsigned long dwLength = 0;
    for (const CRtMessageBlock* pMb = this; pMb; pMb = pMb->m_pNext) {
        dwLength += pMb->Readable_i();
    }
    return dwLength;
}

unsigned long CRtMessageBlock::GetChainedSpace() const {
    unsigned long dwSpace = 0;
    for (const CRtMessageBlock* pMb = this; pMb; pMb = pMb->m_pNext) {
        dwSpace += pMb->Writable_i();
    }
    return dwSpace;
}

void CRtMessageBlock::Append(CRtMessageBlock* aMb) {
    RT_ASSERTE_RETURN_VOID(aMb);
    RT_MB_CHECK_POSITIONS(aMb);

    CRtMessageBlock* pMbMove = this;
    for (;;) {
        RT_ASSERTE_RETURN_VOID(aMb != pMbMove);
        if (!pMbMove->m_pNext) {
            break;
        }
        pMbMove = pMbMove->m_pNext;
    }
    pMbMove->m_pNext = aMb;
}

int CRtMessageBlock::AdvanceChainedReadPtr(unsigned long aCount, unsigned long* aBytesRead) {
    return Read(nullptr, aCount, aBytesRead, TRUE);
}

int CRtMessageBlock::AdvanceChainedWritePtr(unsigned long aCount, unsigned long* aBytesWritten) {
    RT_ASSERTE(RT_BIT_DISABLED(m_Flag, WRITE_LOCKED));

    unsigned long dwNeedWrite = aCount;
    int rv = RT_ERROR_PARTIAL_DATA;
    for (CRtMessageBlock* pCurrent = this; pCurrent && dwNeedWrite > 0;
         pCurrent = pCurrent->m_pNext) {
        // Written bytes must follow the bytes already there; a block that has
        // been read from has its readable data somewhere in the middle.
        if (pCurrent->m_pBeginPtr != pCurrent->m_pReadPtr) {
            RT_ASSERTE(pCurrent->m_pBeginPtr == pCurrent->m_pReadPtr);
            RT_ERROR_TRACE("CRtMessageBlock::AdvanceChainedWritePtr, can't advance. m_pBeginPtr="
                           << static_cast<const void*>(pCurrent->m_pBeginPtr)
                           << " m_pReadPtr=" << static_cast<const void*>(pCurrent->m_pReadPtr));
            if (aBytesWritten) {
                *aBytesWritten = aCount - dwNeedWrite;
            }
            return RT_ERROR_PARTIAL_DATA;
        }
        unsigned long dwSpace = pCurrent->Writable_i();
        if (dwNeedWrite <= dwSpace) {
            pCurrent->m_pWritePtr += dwNeedWrite;
            dwNeedWrite = 0;
            rv = RT_OK;
        } else {
            pCurrent->m_pWritePtr += dwSpace;
            dwNeedWrite -= dwSpace;
        }
    }
    // Nothing advanced at all: a request of 0, or a chain with no space.
    RT_ASSERTE(aCount > dwNeedWrite);
    if (aBytesWritten) {
        *aBytesWritten = aCount - dwNeedWrite;
    }
    return rv;
}

CRtMessageBlock* CRtMessageBlock::DuplicateTopLevel() const {
    CRtMessageBlock* pRet = nullptr;
    unsigned long dwSize = m_pEndPtr > m_pBeginPtr ? m_pEndPtr - m_pBeginPtr : 0;
    if (RT_BIT_ENABLED(m_Flag, DONT_DELETE)) {
        // Caller memory may go away with its caller: the duplicate takes a copy.
        RT_ASSERTE(!m_pDataBlock);
        pRet = new (std::nothrow) CRtMessageBlock(
            dwSize, nullptr, MALLOC_DATA | (m_Flag & ~static_cast<MFlag>(DONT_DELETE)));
        if (pRet && dwSize > 0) {
            if (!pRet->m_pBeginPtr) {
                delete pRet;  // its data block could not be made
                return nullptr;
            }
            std::memcpy(pRet->m_pBeginPtr, m_pBeginPtr, dwSize);
        }
    } else {
        pRet = new (std::nothrow) CRtMessageBlock(m_pDataBlock.Get(), m_Flag);
    }
    if (!pRet) {
        return nullptr;
    }
    pRet->m_pReadPtr = pRet->m_pBeginPtr + (m_pReadPtr - m_pBeginPtr);
    pRet->m_pWritePtr = pRet->m_pBeginPtr + (m_pWritePtr - m_pBeginPtr);
    pRet->m_Flag |= DUPLICATED;
    RT_MB_CHECK_POSITIONS(pRet);
    return pRet;
}

CRtMessageBlock* CRtMessageBlock::DuplicateChained() {
    CRtMessageBlock* pHead = nullptr;
    CRtMessageBlock* pTail = nullptr;
    for (CRtMessageBlock* pMb = this; pMb; pMb = pMb->m_pNext) {
        CRtMessageBlock* pDup = pMb->DuplicateTopLevel();
        if (!pDup) {
            if (pHead) {
                pHead->DestroyChained();
            }
            return nullptr;
        }
        if (pTail) {
            pTail->m_pNext = pDup;
        } else {
            pHead = pDup;
        }
        pTail = pDup;
    }
    return pHead;
}

CRtMessageBlock* CRtMessageBlock::Disjoint(unsigned long aStart) {
    RT_ASSERTE(aStart <= GetChainedLength());

    // Find the block the split falls in: inside pCurrent at offset dwRest, or
    // right after it when dwRest equals its length.
    CRtMessageBlock* pCurrent = this;
    unsigned long dwRest = aStart;
    for (; pCurrent; pCurrent = pCurrent->m_pNext) {
        unsigned long dwLen = pCurrent->Readable_i();
        if (dwLen == 0) {
            continue;
        }
        if (dwRest <= dwLen) {
            break;
        }
        dwRest -= dwLen;
    }
    if (!pCurrent) {
        return nullptr;
    }
    bool bInside = dwRest < pCurrent->Readable_i();
    if (!bInside && !pCurrent->m_pNext) {
        return nullptr;
    }

    // Everything that can fail is allocated before the chain changes, so that
    // running out of memory leaves it as it was. The duplicates of the blocks
    // behind the split that the caller owns wait in order in pReplacements.
    CRtMessageBlock* pFind = nullptr;
    if (bInside) {
        pFind = pCurrent->DuplicateTopLevel();
        if (!pFind) {
            return nullptr;
        }
    }
    CRtMessageBlock* pReplacements = nullptr;
    CRtMessageBlock** ppReplacementTail = &pReplacements;
    for (CRtMessageBlock* pMove = pCurrent->m_pNext; pMove; pMove = pMove->m_pNext) {
        if (RT_BIT_ENABLED(pMove->m_Flag, DUPLICATED)) {
            continue;
        }
        CRtMessageBlock* pDup = pMove->DuplicateTopLevel();
        if (!pDup) {
            while (pReplacements) {
                CRtMessageBlock* pNext = pReplacements->m_pNext;
                delete pReplacements;
                pReplacements = pNext;
            }
            delete pFind;
            return nullptr;
        }
        *ppReplacementTail = pDup;
        ppReplacementTail = &pDup->m_pNext;
    }

    CRtMessageBlock* pRet = nullptr;
    if (bInside) {
        pFind->m_pNext = pCurrent->m_pNext;
        pFind->m_pReadPtr += dwRest;
        pCurrent->m_pWritePtr = pCurrent->m_pReadPtr + dwRest;
        pCurrent->m_pNext = nullptr;
        RT_MB_CHECK_POSITIONS(pFind);
        RT_MB_CHECK_POSITIONS(pCurrent);
        pRet = pFind;
    } else {
        pRet = pCurrent->m_pNext;
        pCurrent->m_pNext = nullptr;
    }

    // The result is handed over whole: put the duplicates in place of the
    // blocks the caller owns, which stay with it, detached.
    CRtMessageBlock* pPrevious = bInside ? pRet : nullptr;
    CRtMessageBlock* pMove = bInside ? pRet->m_pNext : pRet;
    while (pMove) {
        if (RT_BIT_ENABLED(pMove->m_Flag, DUPLICATED)) {
            pPrevious = pMove;
            pMove = pMove->m_pNext;
            continue;
        }
        RT_WARNING_TRACE(
            "CRtMessageBlock::Disjoint, there are not DUPLICATED blocks behind the disjointed "
            "block.");
        CRtMessageBlock* pDup = pReplacements;
        pReplacements = pDup->m_pNext;
        pDup->m_pNext = pMove->m_pNext;
        if (pPrevious) {
            RT_ASSERTE(pPrevious->m_pNext == pMove);
            pPrevious->m_pNext = pDup;
        } else {
            pRet = pDup;
        }
        pMove->m_pNext = nullptr;
        pPrevious = pDup;
        pMove = pDup->m_pNext;
    }
    return pRet;
}

void CRtMessageBlock::DestroyChained() {
    CRtMessageBlock* pMbMove = this;
    while (pMbMove) {
        CRtMessageBlock* pNext = pMbMove->m_pNext;
        if (RT_BIT_ENABLED(pMbMove->m_Flag, DUPLICATED)) {
            delete pMbMove;
        } else {
            RT_ASSERTE(RT_BIT_ENABLED(pMbMove->m_Flag, DUPLICATED));
        }
        pMbMove = pNext;
    }
}

unsigned long CRtMessageBlock::FillIov(iovec* const aIov, unsigned long aMax,
                                       unsigned long aMaxLength) const {
    RT_ASSERTE_RETURN(aIov || aMax == 0, 0);
    if (aMaxLength == 0) {
        return 0;
    }

    // One test per block on the common path; the length limit is looked at
    // only against the block that reaches it.
    unsigned long dwCount = 0;
    unsigned long dwRest = aMaxLength;
    for (const CRtMessageBlock* pMb = this; pMb && dwCount < aMax; pMb = pMb->m_pNext) {
        char* pRead = pMb->m_pReadPtr;
        const char* pWrite = pMb->m_pWritePtr;
        if (pWrite <= pRead) {
            continue;
        }
        unsigned long dwLen = static_cast<unsigned long>(pWrite - pRead);
        aIov[dwCount].iov_base = pRead;
        if (dwLen >= dwRest) {
            aIov[dwCount].iov_len = dwRest;
            return dwCount + 1;
        }
        aIov[dwCount].iov_len = dwLen;
        dwRest -= dwLen;
        ++dwCount;
    }
    return dwCount;
}

void CRtMessageBlock::SaveChainedReadPtr() {
    for (CRtMessageBlock* i = this; i; i = i->m_pNext) {
        RT_MB_CHECK_POSITIONS(i);
        i->m_pSaveReadPtr = i->m_pReadPtr;
    }
}

void CRtMessageBlock::RewindChained(int aRead) {
    for (CRtMessageBlock* i = this; i; i = i->m_pNext) {
        RT_MB_CHECK_POSITIONS(i);
        if (!aRead) {
            i->m_pWritePtr = i->m_pBeginPtr;
            continue;
        }
        RT_ASSERTE(i->m_pSaveReadPtr);
        if (!i->m_pSaveReadPtr) {
            continue;
        }
        // A save from before the write position moved back (Disjoint, or
        // RewindChained(FALSE)) would put read past write: stop at write.
        RT_ASSERTE(i->m_pSaveReadPtr <= i->m_pWritePtr);
        i->m_pReadPtr = i->m_pSaveReadPtr <= i->m_pWritePtr ? i->m_pSaveReadPtr : i->m_pWritePtr;
    }
}

CRtMessageBlock* CRtMessageBlock::ReclaimGarbage() {
    CRtMessageBlock* pMb = this;
    while (pMb && pMb->Readable_i() == 0) {
        CRtMessageBlock* pNext = pMb->m_pNext;
        if (RT_BIT_ENABLED(pMb->m_Flag, DUPLICATED)) {
            delete pMb;
        }
        pMb = pNext;
    }
    return pMb;
}

CRtString CRtMessageBlock::FlattenChained() const {
    CRtString strRet;
    strRet.reserve(GetChainedLength() + 1);
    for (const CRtMessageBlock* pMb = this; pMb; pMb = pMb->m_pNext) {
        unsigned long dwLen = pMb->Readable_i();
        if (dwLen > 0) {
            strRet.append(pMb->m_pReadPtr, dwLen);
        }
    }
    return strRet;
}
