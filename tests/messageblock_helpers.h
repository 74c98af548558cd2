// Test helpers for message blocks: blocks and chains the test owns, and
// walks over chains.
#ifndef TESTS_MESSAGEBLOCK_HELPERS_H
#define TESTS_MESSAGEBLOCK_HELPERS_H

#include <string>
#include <vector>

#include "rtmessageblock.h"

// A block of its own data block holding aText as readable bytes.
inline CRtMessageBlock* MakeBlock(const std::string& aText, unsigned long aExtraSpace = 0) {
    CRtMessageBlock* mb = new CRtMessageBlock(aText.size() + aExtraSpace);
    mb->Write(aText.data(), aText.size());
    return mb;
}

// The host's blocks of a test: built into one chain, deleted at the end.
class OwnedChain {
public:
    explicit OwnedChain(const std::vector<std::string>& aTexts) {
        for (const std::string& text : aTexts) {
            m_blocks.push_back(MakeBlock(text));
            if (m_blocks.size() > 1) {
                m_blocks.front()->Append(m_blocks.back());
            }
        }
    }
    ~OwnedChain() {
        for (CRtMessageBlock* mb : m_blocks) {
            delete mb;
        }
    }
    CRtMessageBlock* Head() const { return m_blocks.front(); }
    CRtMessageBlock* operator[](size_t aIndex) const { return m_blocks[aIndex]; }

private:
    std::vector<CRtMessageBlock*> m_blocks;
};

// Whether DestroyChained frees all of the chain.
inline bool AllDuplicated(const CRtMessageBlock* aMb) {
    for (; aMb; aMb = aMb->GetNext()) {
        if (RT_BIT_DISABLED(aMb->GetFlag(), CRtMessageBlock::DUPLICATED)) {
            return false;
        }
    }
    return true;
}

inline size_t ChainBlocks(const CRtMessageBlock* aMb) {
    size_t n = 0;
    for (; aMb; aMb = aMb->GetNext()) {
        ++n;
    }
    return n;
}

#endif  // TESTS_MESSAGEBLOCK_HELPERS_H
