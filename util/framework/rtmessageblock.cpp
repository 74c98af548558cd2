// Construction, the top-level operations and reading, peeking and writing.
// The operations on whole chains are in rtmessageblockchain.cpp.
#include "rtmessageblock.h"

#include <cstring>

CRtMessageBlock::CRtMessageBlock(unsigned long aSize, const char* aData, MFlag aFlag,
                                 unsigned long aAdvanceWritePtrSize)
    : m_pNext(nullptr),
      m_pReadPtr(nullptr),
      m_pWritePtr(nullptr),
      m_pSaveReadPtr(nullptr),
      m_pBeginPtr(nullptr),
      m_pEndPtr(nullptr),
      m_Flag(0) {
    if (!aData || RT_BIT_ENABLED(aFlag, MALLOC_DATA)) {
        if (aData) {
            RT_ASSERTE(RT_BIT_DISABLED(aFlag, CRtMessageBlock::DONT_DELETE));
        }
        aFlag &= ~static_cast<MFlag>(DONT_DELETE);
        if (aSize > 0) {
            CRtDataBlock::CreateInstance(m_pDataBlock.ParaOut(), aSize, nullptr);
        }
        Reset(m_pDataBlock.Get());
    } else {
        aFlag |= DONT_DELETE;
        m_pBeginPtr = const_cast<char*>(aData);
        m_pReadPtr = m_pBeginPtr;
        m_pWritePtr = m_pBeginPtr;
        m_pEndPtr = m_pBeginPtr + aSize;
    }
    if (aAdvanceWritePtrSize > 0) {
        AdvanceTopLevelWritePtr(aAdvanceWritePtrSize);
    }
    m_Flag = aFlag & ~(static_cast<MFlag>(MALLOC_DATA) | s_dwLockMask);
}

CRtMessageBlock::CRtMessageBlock(CRtDataBlock* aDb, MFlag aFlag)
    : m_pNext(nullptr),
      m_pReadPtr(nullptr),
      m_pWritePtr(nullptr),
      m_pSaveReadPtr(nullptr),
      m_pBeginPtr(nullptr),
      m_pEndPtr(nullptr),
      m_Flag(0) {
    RT_ASSERTE(RT_BIT_DISABLED(aFlag, CRtMessageBlock::DONT_DELETE));
    Reset(aDb);
    m_Flag = aFlag & ~(static_cast<MFlag>(DONT_DELETE | MALLOC_DATA) | s_dwLockMask);
}

// m_pDataBlock releases its reference; caller memory and m_pNext are not ours.
CRtMessageBlock::~CRtMessageBlock() = default;

void CRtMessageBlock::Reset(CRtDataBlock* aDb) {
    m_pDataBlock = aDb;
    if (aDb) {
        m_pBeginPtr = aDb->GetBasePtr();
        m_pEndPtr = m_pBeginPtr + aDb->GetLength();
    } else {
        m_pBeginPtr = nullptr;
        m_pEndPtr = nullptr;
    }
    m_pReadPtr = m_pBeginPtr;
    m_pWritePtr = m_pBeginPtr;
}

unsigned long CRtMessageBlock::GetTopLevelLength() const {
    RT_ASSERTE(m_pWritePtr >= m_pReadPtr);
    return Readable_i();
}

unsigned long CRtMessageBlock::GetTopLevelSpace() const {
    RT_ASSERTE(m_pEndPtr >= m_pWritePtr);
    return Writable_i();
}

const char* CRtMessageBlock::GetTopLevelReadPtr() const {
    RT_ASSERTE(RT_BIT_DISABLED(m_Flag, READ_LOCKED));
    return m_pReadPtr;
}

char* CRtMessageBlock::GetTopLevelWritePtr() const {
    RT_ASSERTE(RT_BIT_DISABLED(m_Flag, WRITE_LOCKED));
    return m_pWritePtr;
}

int CRtMessageBlock::AdvanceTopLevelWritePtr(unsigned long aStep) {
    RT_ASSERTE(RT_BIT_DISABLED(m_Flag, WRITE_LOCKED));
    // Compared as counts: forming a pointer past the end is itself undefined.
    if (aStep > Writable_i()) {
        RT_ASSERT_TRACE_I("m_pWritePtr + aStep <= m_pEndPtr");
        return RT_ERROR_NOT_AVAILABLE;
    }
    m_pWritePtr += aStep;
    return RT_OK;
}

int CRtMessageBlock::AdvanceTopLevelReadPtr(unsigned long aStep) {
    RT_ASSERTE(RT_BIT_DISABLED(m_Flag, READ_LOCKED));
    if (aStep > Readable_i()) {
        RT_ASSERT_TRACE_I("m_pWritePtr >= m_pReadPtr + aStep");
        return RT_ERROR_NOT_AVAILABLE;
    }
    m_pReadPtr += aStep;
    return RT_OK;
}

int CRtMessageBlock::Read(void* aDst, unsigned long aCount, unsigned long* aBytesRead,
                          int aAdvance) {
    char* pDst = static_cast<char*>(aDst);
    unsigned long dwTotal = 0;
    bool bMet = false;
    for (CRtMessageBlock* pMbMove = this; pMbMove; pMbMove = pMbMove->m_pNext) {
        RT_ASSERTE(RT_BIT_DISABLED(pMbMove->m_Flag, READ_LOCKED));
        RT_ASSERTE(pMbMove->m_pWritePtr >= pMbMove->m_pReadPtr);

        unsigned long dwLeft = aCount - dwTotal;
        unsigned long n = pMbMove->Readable_i();
        if (n > dwLeft) {
            n = dwLeft;
        }
        if (n > 0) {
            if (pDst) {
                std::memcpy(pDst + dwTotal, pMbMove->m_pReadPtr, n);
            }
            dwTotal += n;
            if (aAdvance) {
                pMbMove->m_pReadPtr += n;
                RT_ASSERTE(pMbMove->m_pReadPtr <= pMbMove->m_pWritePtr);
            }
        }
        if (dwTotal >= aCount) {
            bMet = true;
            break;
        }
    }
    if (aBytesRead) {
        *aBytesRead = dwTotal;
    }
    return bMet ? RT_OK : RT_ERROR_PARTIAL_DATA;
}

// Walks instead of recursing, so a long chain cannot exhaust the stack; each
// block visited checks itself as the recursive form would.
int CRtMessageBlock::Peek(void* aDst, unsigned long aCount, unsigned long aPos,
                          unsigned long* aBytesPeeked) {
    CRtMessageBlock* pMb = this;
    unsigned long dwLen = pMb->PeekCheck_i();
    while (aPos >= dwLen) {
        if (!pMb->m_pNext) {
            return RT_ERROR_PARTIAL_DATA;
        }
        aPos -= dwLen;
        pMb = pMb->m_pNext;
        dwLen = pMb->PeekCheck_i();
    }

    char* pDst = static_cast<char*>(aDst);
    const char* pSrc = pMb->m_pReadPtr + aPos;
    if (aCount <= dwLen - aPos) {
        if (pDst && aCount > 0) {
            std::memcpy(pDst, pSrc, aCount);
        }
        if (aBytesPeeked) {
            *aBytesPeeked = aCount;
        }
        return RT_OK;
    }

    unsigned long dwPeeked = dwLen - aPos;
    if (pDst) {
        std::memcpy(pDst, pSrc, dwPeeked);
    }
    int rv = RT_ERROR_PARTIAL_DATA;
    if (pMb->m_pNext) {
        unsigned long dwRest = 0;
        rv =
            pMb->m_pNext->Read(pDst ? pDst + dwPeeked : nullptr, aCount - dwPeeked, &dwRest, FALSE);
        dwPeeked += dwRest;
    }
    if (aBytesPeeked) {
        *aBytesPeeked = dwPeeked;
    }
    return rv;
}

unsigned long CRtMessageBlock::PeekCheck_i() const {
    RT_ASSERTE(RT_BIT_DISABLED(m_Flag, READ_LOCKED));
    RT_ASSERTE(m_pWritePtr >= m_pReadPtr);
    return Readable_i();
}

int CRtMessageBlock::Write(const void* aSrc, unsigned long aCount, unsigned long* aBytesWritten) {
    RT_ASSERTE(RT_BIT_DISABLED(m_Flag, WRITE_LOCKED));

    unsigned long dwSpace = GetTopLevelSpace();
    unsigned long n = aCount < dwSpace ? aCount : dwSpace;
    if (n > 0) {
        if (aSrc) {
            std::memcpy(m_pWritePtr, aSrc, n);
        }
        m_pWritePtr += n;
    }
    if (aBytesWritten) {
        *aBytesWritten = n;
    }
    if (n < aCount) {
        RT_ASSERTE(m_pWritePtr == m_pEndPtr);
        return RT_ERROR_PARTIAL_DATA;
    }
    return RT_OK;
}
