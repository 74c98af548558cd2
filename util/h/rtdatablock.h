// Data blocks: CRtDataBlock, the reference-counted storage under message
// blocks, and CRtDataBlockNoMalloc, a read and a write cursor over memory the
// caller owns. Hosts use CRtDataBlockNoMalloc directly; CRtDataBlock is a
// building block of CRtMessageBlock (rtmessageblock.h), which hosts may also
// hand a data block they made themselves.
#ifndef RTDATABLOCK_H
#define RTDATABLOCK_H

#include "rtdefines.h"
#include "rtreferencecontrol.h"

// Header and data area in one allocation: a block of N bytes costs one
// malloc, and the last ReleaseReference frees both at once. Never copied or
// resized.
//
// Thread rules: references may be added and released on any thread (the count
// is atomic), so duplicates of one message block may be destroyed on different
// threads. The bytes themselves are not guarded: callers coordinate access.
class RT_API CRtDataBlock final : public CRtReferenceControl {
public:
    // Creates a block of aSize bytes with one reference, which the caller owns,
    // and stores it in aDb. With aData, the aSize bytes are copied in;
    // without, the data area is left uninitialised. RT_ERROR_INVALID_ARG for a
    // size of 0, RT_ERROR_OUT_OF_MEMORY when the allocation fails; aDb is
    // unchanged on failure.
    static int CreateInstance(CRtDataBlock*& aDb, unsigned long aSize, const char* aData = nullptr);

    char* GetBasePtr() const { return m_pBasePtr; }
    unsigned long GetLength() const { return m_dwLength; }

protected:
    // Destroys the object in place and frees the single allocation.
    void OnReferenceDestroy() override;

private:
    CRtDataBlock(unsigned long aLength, char* aBasePtr)
        : m_dwLength(aLength), m_pBasePtr(aBasePtr) {}
    // Only OnReferenceDestroy ends a data block: delete would free the wrong size.
    ~CRtDataBlock() override = default;

    unsigned long m_dwLength;
    char* m_pBasePtr;
};

// A read cursor and a write cursor over a fixed range of caller memory. Both
// start at the beginning and run independently over the whole range: reading
// does not consume what was written. Owns nothing and never allocates; the
// memory must outlive it. Copying copies the four pointers.
//
// Thread rules: one thread at a time.
class RT_API CRtDataBlockNoMalloc {
public:
    // A null aStr traces an assertion and leaves an empty range on which every
    // Read and Write fails with RT_ERROR_NOT_INITIALIZED.
    CRtDataBlockNoMalloc(const char* aStr, unsigned long aLen);

    // Copy up to aCount bytes and move their cursor. RT_OK when all aCount
    // bytes moved, RT_ERROR_PARTIAL_DATA when the range ended first (the bytes
    // that fitted are moved and counted), RT_ERROR_INVALID_ARG for a null
    // buffer. The count is stored when aBytesRead/aBytesWritten is given.
    int Read(void* aDst, unsigned long aCount, unsigned long* aBytesRead = nullptr);
    // Writes into the range given to the constructor: only a writable range
    // may be written.
    int Write(const void* aSrc, unsigned long aCount, unsigned long* aBytesWritten = nullptr);

private:
    const char* m_pBegin;
    const char* m_pEnd;
    const char* m_pCurrentRead;
    const char* m_pCurrentWrite;
};

#endif  // RTDATABLOCK_H
