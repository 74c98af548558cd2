// CRtMessageBlock: the library's unit of network data, a block of read and
// write positions over a buffer, linked into chains. Hosts use it directly;
// its storage, CRtDataBlock (rtdatablock.h), is a building block.
#ifndef RTMESSAGEBLOCK_H
#define RTMESSAGEBLOCK_H

#include "rtdatablock.h"
#include "rtdefines.h"
#include "rtosdefs.h"  // iovec
#include "rtreferencecontrol.h"

// Four positions over a buffer, begin <= read <= write <= end:
//
//   begin          read                write          end
//     |  consumed    |  length (readable) |   space      |
//     +--------------+--------------------+--------------+
//
// Read, Peek and AdvanceChainedReadPtr take bytes at read; Write and
// AdvanceChainedWritePtr add bytes at write.
//
// The buffer is either a CRtDataBlock (one allocation, reference counted) or
// caller memory (DONT_DELETE: no data block, nothing freed, valid only while
// the caller's memory is). Duplicating a block over a data block copies no
// bytes: the duplicate is a new set of positions over the same data block,
// which is freed when its last block goes.
//
//   head (host's)        dup (DUPLICATED)      dup (DUPLICATED)
//   [r..w] ---m_pNext--> [r..w] ---m_pNext---> [r..w] --> null
//      \                   /                      |
//       +-> CRtDataBlock <+                 CRtDataBlock
//            refs = 2                          refs = 1
//
// Ownership across a chain: a block with DUPLICATED (made by DuplicateTopLevel,
// DuplicateChained or Disjoint) belongs to the chain, and DestroyChained or
// ReclaimGarbage deletes it. Any other block belongs to whoever made it (new
// or on the stack): those operations trace it and leave it alive, and its
// owner deletes it, which never touches the blocks behind it. So a host
// deletes the blocks it constructed and calls DestroyChained once on each
// chain it got from a duplicating operation.
//
// Thread rules: a block and its chain are used by one thread at a time;
// nothing here is locked. Only the data block's count is atomic, so a
// duplicate may be destroyed on another thread than the block it came from.
//
// Bad arguments and broken positions are traced as assertions; no operation
// reads or writes outside a buffer. A null destination or source is allowed
// wherever bytes move: the positions move and the bytes are counted as if
// copied.
class RT_API CRtMessageBlock {
public:
    typedef unsigned long MFlag;
    enum : MFlag {
        // The buffer is caller memory: no data block, nothing to free.
        DONT_DELETE = 0x1,
        // For constructors only: make a new data block even when data is
        // given (its bytes are not copied). Never kept in the flags.
        MALLOC_DATA = 0x2,
        // Reading or writing is not allowed; a use is traced. No unlocking.
        READ_LOCKED = 0x100,
        WRITE_LOCKED = 0x200,
        // Made by a duplicating operation; belongs to the chain.
        DUPLICATED = 0x20000,
    };

    // Without aData (or with MALLOC_DATA): a new data block of aSize bytes
    // (none, and all positions null, for a size of 0). With aData: wraps the
    // aSize bytes there as caller memory, with DONT_DELETE. Then advances the
    // write position by aAdvanceWritePtrSize, so that wrapped bytes become
    // readable. The lock bits and MALLOC_DATA of aFlag are dropped; other bits
    // are kept.
    explicit CRtMessageBlock(unsigned long aSize, const char* aData = nullptr, MFlag aFlag = 0,
                             unsigned long aAdvanceWritePtrSize = 0);
    // Over a data block the caller made: adds a reference of its own, so the
    // caller still releases its reference. All of it is space at first.
    CRtMessageBlock(CRtDataBlock* aDb, MFlag aFlag);
    // Releases the data block reference; the blocks behind this one are left
    // as they are.
    ~CRtMessageBlock();

    // ---- This block only.
    unsigned long GetTopLevelLength() const;  // write - read
    unsigned long GetTopLevelSpace() const;   // end - write
    const char* GetTopLevelReadPtr() const;
    char* GetTopLevelWritePtr() const;
    // RT_ERROR_NOT_AVAILABLE, moving nothing, past the space or the data.
    int AdvanceTopLevelWritePtr(unsigned long aStep);
    int AdvanceTopLevelReadPtr(unsigned long aStep);
    void LockReading() { m_Flag |= READ_LOCKED; }
    void LockWriting() { m_Flag |= WRITE_LOCKED; }
    MFlag GetFlag() const { return m_Flag; }
    CRtMessageBlock* GetNext() const { return m_pNext; }

    // ---- Moving bytes. RT_ERROR_PARTIAL_DATA when fewer than aCount bytes
    // moved; the count, when asked for, says how many did.
    // Copies aCount readable bytes across the chain and, with aAdvance,
    // consumes them. Empty blocks are passed over.
    int Read(void* aDst, unsigned long aCount, unsigned long* aBytesRead = nullptr,
             int aAdvance = TRUE);
    // Copies aCount bytes from aPos bytes into the chain's readable data,
    // moving nothing. When aPos is at or past the end, the count is left
    // untouched.
    int Peek(void* aDst, unsigned long aCount, unsigned long aPos = 0,
             unsigned long* aBytesPeeked = nullptr);
    // Copies into this block's space only; never continues into the chain.
    int Write(const void* aSrc, unsigned long aCount, unsigned long* aBytesWritten = nullptr);

    // ---- The whole chain, from this block on.
    unsigned long GetChainedLength() const;
    unsigned long GetChainedSpace() const;
    // Links aMb (and what follows it) after the last block. A block already in
    // this chain is traced and not linked, since that would close a loop.
    void Append(CRtMessageBlock* aMb);
    // Consumes aCount readable bytes across the chain.
    int AdvanceChainedReadPtr(unsigned long aCount, unsigned long* aBytesRead = nullptr);
    // Marks aCount bytes of space as written, filling blocks in order. Stops
    // with RT_ERROR_PARTIAL_DATA at a block that has been read from.
    int AdvanceChainedWritePtr(unsigned long aCount, unsigned long* aBytesWritten = nullptr);

    // A new DUPLICATED block with the same positions: it shares the data block,
    // or copies the buffer when this one is caller memory. Null when out of
    // memory. The caller owns it (DestroyChained frees it).
    CRtMessageBlock* DuplicateTopLevel() const;
    // Duplicates every block into a new chain of DUPLICATED blocks; null, with
    // nothing left behind, when out of memory.
    CRtMessageBlock* DuplicateChained();
    // Keeps the first aStart readable bytes in this chain and returns the
    // rest, or null when nothing follows them (or out of memory, with the
    // chain unchanged). Every block of the result is DUPLICATED: blocks that
    // were not are replaced by duplicates and left detached with their owner.
    // A split inside a block leaves both parts over one buffer, and the space
    // of the kept part covers the bytes of the returned one: do not write
    // into the kept part.
    CRtMessageBlock* Disjoint(unsigned long aStart);
    // Deletes the DUPLICATED blocks of the chain, this one included; others
    // are traced and left alive, still linked to blocks that may be gone.
    void DestroyChained();

    // Fills up to aMax entries with the readable bytes, at most aMaxLength in
    // all, and returns the number filled. Empty blocks take no entry.
    unsigned long FillIov(iovec* const aIov, unsigned long aMax, unsigned long aMaxLength) const;

    // Remembers every block's read position, so that a parser can read ahead
    // and RewindChained(TRUE) back. RewindChained(FALSE) empties every block
    // for writing again (write = begin; read positions stay).
    void SaveChainedReadPtr();
    void RewindChained(int aRead);

    // Deletes the spent (empty) DUPLICATED blocks at the front and returns the
    // first block with data, or null when all are spent. The caller replaces
    // its head pointer with the result.
    CRtMessageBlock* ReclaimGarbage();

    // All readable bytes of the chain in one string; moves nothing.
    CRtString FlattenChained() const;

private:
    CRtMessageBlock(const CRtMessageBlock&) = delete;
    CRtMessageBlock& operator=(const CRtMessageBlock&) = delete;

    // Takes a reference to aDb (before dropping the old one) and spans it.
    void Reset(CRtDataBlock* aDb);
    // Readable and writable byte counts that stay 0 when a position is out of
    // order, so no copy ever leaves the buffer.
    unsigned long Readable_i() const {
        return m_pWritePtr > m_pReadPtr ? m_pWritePtr - m_pReadPtr : 0;
    }
    unsigned long Writable_i() const {
        return m_pEndPtr > m_pWritePtr ? m_pEndPtr - m_pWritePtr : 0;
    }
    // The checks Peek makes at each block it visits; returns the readable count.
    unsigned long PeekCheck_i() const;

    // Bits 8 to 15: the lock flags, which no constructor keeps.
    static const MFlag s_dwLockMask = 0xFF00;

    CRtMessageBlock* m_pNext;
    CRtAutoPtr<CRtDataBlock> m_pDataBlock;
    char* m_pReadPtr;
    char* m_pWritePtr;
    char* m_pSaveReadPtr;
    char* m_pBeginPtr;
    char* m_pEndPtr;
    MFlag m_Flag;
};

#endif  // RTMESSAGEBLOCK_H
