#include "rtdatablock.h"

#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

int CRtDataBlock::CreateInstance(CRtDataBlock*& aDb, unsigned long aSize, const char* aData) {
    // An old pointer is overwritten, not released: the caller still owns it.
    RT_ASSERTE(!aDb);
    RT_ASSERTE_RETURN(aSize > 0, RT_ERROR_INVALID_ARG);

    if (aSize > std::numeric_limits<size_t>::max() - sizeof(CRtDataBlock)) {
        return RT_ERROR_OUT_OF_MEMORY;
    }
    // sizeof(CRtDataBlock) is a multiple of the object's alignment, so the
    // data area after it is aligned for any scalar the host stores there.
    void* pMem = std::malloc(sizeof(CRtDataBlock) + aSize);
    if (!pMem) {
        return RT_ERROR_OUT_OF_MEMORY;
    }
    char* pData = static_cast<char*>(pMem) + sizeof(CRtDataBlock);
    if (aData) {
        std::memcpy(pData, aData, aSize);
    }
    aDb = new (pMem) CRtDataBlock(aSize, pData);
    aDb->AddReference();
    return RT_OK;
}

void CRtDataBlock::OnReferenceDestroy() {
    this->~CRtDataBlock();
    std::free(this);
}

CRtDataBlockNoMalloc::CRtDataBlockNoMalloc(const char* aStr, unsigned long aLen)
    : m_pBegin(aStr),
      m_pEnd(aStr ? aStr + aLen : nullptr),
      m_pCurrentRead(aStr),
      m_pCurrentWrite(aStr) {
    RT_ASSERTE(m_pBegin);
}

int CRtDataBlockNoMalloc::Read(void* aDst, unsigned long aCount, unsigned long* aBytesRead) {
    RT_ASSERTE_RETURN(aDst, RT_ERROR_INVALID_ARG);
    RT_ASSERTE_RETURN(m_pCurrentRead, RT_ERROR_NOT_INITIALIZED);
    RT_ASSERTE(m_pCurrentRead <= m_pEnd);

    unsigned long dwLeft = m_pCurrentRead < m_pEnd ? m_pEnd - m_pCurrentRead : 0;
    unsigned long n = aCount < dwLeft ? aCount : dwLeft;
    if (n > 0) {
        std::memcpy(aDst, m_pCurrentRead, n);
        m_pCurrentRead += n;
    }
    if (aBytesRead) {
        *aBytesRead = n;
    }
    return n == aCount ? RT_OK : RT_ERROR_PARTIAL_DATA;
}

int CRtDataBlockNoMalloc::Write(const void* aSrc, unsigned long aCount,
                                unsigned long* aBytesWritten) {
    RT_ASSERTE_RETURN(aSrc, RT_ERROR_INVALID_ARG);
    RT_ASSERTE_RETURN(m_pCurrentWrite, RT_ERROR_NOT_INITIALIZED);
    RT_ASSERTE(m_pCurrentWrite <= m_pEnd);

    unsigned long dwLeft = m_pCurrentWrite < m_pEnd ? m_pEnd - m_pCurrentWrite : 0;
    unsigned long n = aCount < dwLeft ? aCount : dwLeft;
    if (n > 0) {
        // The range is const because most users only read it; a writer gave
        // writable memory.
        std::memcpy(const_cast<char*>(m_pCurrentWrite), aSrc, n);
        m_pCurrentWrite += n;
    }
    if (aBytesWritten) {
        *aBytesWritten = n;
    }
    return n == aCount ? RT_OK : RT_ERROR_PARTIAL_DATA;
}
