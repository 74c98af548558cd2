// Drives random sequences of chain operations on two message-block chains and
// checks each against a byte string of the chain's readable bytes. ASan and
// LeakSanitizer catch what the model cannot: reads outside a buffer, blocks
// freed twice or never.
#include <fuzzer/FuzzedDataProvider.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "rtframework.h"

namespace {

#define CHECK(cond)                                                                      \
    do {                                                                                 \
        if (!(cond)) {                                                                   \
            std::fprintf(stderr, "%s:%d check failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                \
        }                                                                                \
    } while (0)

const size_t kMaxBlocks = 64;
const size_t kMaxBlockSize = 64;

// A chain the harness holds, with the bytes it must read.
struct ModelChain {
    CRtMessageBlock* head = nullptr;
    std::string bytes;
};

class Harness {
public:
    explicit Harness(FuzzedDataProvider& aInput) : m_input(aInput) {}

    ~Harness() {
        // Chains first (they free their duplicates), then the blocks the
        // harness made, which the chains never free.
        Destroy(m_main);
        Destroy(m_other);
        for (CRtMessageBlock* mb : m_owned) {
            delete mb;
        }
    }

    void Step() {
        switch (m_input.ConsumeIntegralInRange<int>(0, 15)) {
            case 0:
                Build();
                break;
            case 1:
                BuildByAdvancingWrites();
                break;
            case 2:
                Join();
                break;
            case 3:
                Read(true);
                break;
            case 4:
                Read(false);
                break;
            case 5:
                Peek();
                break;
            case 6:
                AdvanceRead();
                break;
            case 7:
                Duplicate();
                break;
            case 8:
                Disjoint();
                break;
            case 9:
                Reclaim();
                break;
            case 10:
                CHECK(Flatten(m_main) == m_main.bytes);
                break;
            case 11:
                FillIov();
                break;
            case 12:
                SaveOrRewind();
                break;
            case 13:
                RewindWrites();
                break;
            case 14:
                std::swap(m_main, m_other);
                m_bSaveValid = false;
                break;
            case 15:
                Destroy(m_main);
                m_bSaveValid = false;
                break;
        }
        CHECK(Length(m_main) == m_main.bytes.size());
        CHECK(Length(m_other) == m_other.bytes.size());
    }

private:
    static unsigned long Length(const ModelChain& aChain) {
        return aChain.head ? aChain.head->GetChainedLength() : 0;
    }
    static std::string Flatten(const ModelChain& aChain) {
        return aChain.head ? aChain.head->FlattenChained() : std::string();
    }
    static void Destroy(ModelChain& aChain) {
        if (aChain.head) {
            aChain.head->DestroyChained();
        }
        aChain = ModelChain();
    }

    // Caller memory that outlives every block over it.
    const char* Keep(std::string aBytes) {
        m_arena.push_back(std::move(aBytes));
        return m_arena.back().data();
    }

    void AppendToMain(CRtMessageBlock* aMb, const std::string& aBytes) {
        if (m_main.head) {
            m_main.head->Append(aMb);
        } else {
            m_main.head = aMb;
        }
        m_main.bytes += aBytes;
        m_bSaveValid = false;
    }

    // One new block in one of the ways a host makes them, appended to main.
    void Build() {
        if (m_owned.size() >= kMaxBlocks) {
            return;
        }
        unsigned long size = m_input.ConsumeIntegralInRange<unsigned long>(0, kMaxBlockSize);
        std::string data = m_input.ConsumeBytesAsString(size);
        unsigned long fill = m_input.ConsumeIntegralInRange<unsigned long>(0, size + 2);
        CRtMessageBlock* mb = nullptr;
        std::string readable;
        switch (m_input.ConsumeIntegralInRange<int>(0, 3)) {
            case 0: {  // own storage, written (Write takes at most size bytes)
                data.resize(size, 'o');
                mb = new CRtMessageBlock(size);
                unsigned long n = 0;
                int rv = mb->Write(data.data(), fill, &n);
                CHECK(n == std::min(fill, size));
                CHECK(rv == (fill <= size ? RT_OK : RT_ERROR_PARTIAL_DATA));
                readable = data.substr(0, n);
                break;
            }
            case 1: {  // caller memory, made readable by the constructor
                data.resize(size, 'm');
                mb = new CRtMessageBlock(size, Keep(data), 0, fill);
                CHECK(RT_BIT_ENABLED(mb->GetFlag(), CRtMessageBlock::DONT_DELETE) || size == 0);
                readable = fill <= size ? data.substr(0, fill) : std::string();
                break;
            }
            case 2: {  // MALLOC_DATA over caller bytes: own storage, then written
                data.resize(size, 'c');
                mb = new CRtMessageBlock(size, Keep(data), CRtMessageBlock::MALLOC_DATA);
                unsigned long n = 0;
                mb->Write(data.data(), std::min(fill, size), &n);
                readable = data.substr(0, n);
                break;
            }
            case 3: {  // over a data block the host made
                data.resize(size, 'd');
                CRtDataBlock* db = nullptr;
                if (RT_FAILED(CRtDataBlock::CreateInstance(db, size, data.data()))) {
                    CHECK(size == 0);
                }
                mb = new CRtMessageBlock(db, 0);
                if (db) {
                    db->ReleaseReference();
                }
                int rv = mb->AdvanceTopLevelWritePtr(fill);
                CHECK(rv == (fill <= size ? RT_OK : RT_ERROR_NOT_AVAILABLE));
                readable = fill <= size ? data.substr(0, fill) : std::string();
                break;
            }
        }
        CHECK(mb->FlattenChained() == readable);
        unsigned long skip = m_input.ConsumeIntegralInRange<unsigned long>(0, readable.size() + 1);
        int rv = mb->AdvanceTopLevelReadPtr(skip);
        if (skip <= readable.size()) {
            CHECK(rv == RT_OK);
            readable.erase(0, skip);
        } else {
            CHECK(rv == RT_ERROR_NOT_AVAILABLE);
        }
        m_owned.push_back(mb);
        if (m_input.ConsumeBool()) {
            // The chain gets a duplicate; the host keeps the original aside.
            CRtMessageBlock* dup = mb->DuplicateTopLevel();
            CHECK(dup && RT_BIT_ENABLED(dup->GetFlag(), CRtMessageBlock::DUPLICATED));
            CHECK(dup->FlattenChained() == readable);
            mb = dup;
        }
        AppendToMain(mb, readable);
    }

    // A fresh chain over caller memory whose bytes become readable through
    // AdvanceChainedWritePtr.
    void BuildByAdvancingWrites() {
        int blocks = m_input.ConsumeIntegralInRange<int>(1, 3);
        if (m_owned.size() + blocks > kMaxBlocks) {
            return;
        }
        CRtMessageBlock* head = nullptr;
        std::vector<std::string> buffers;
        unsigned long space = 0;
        for (int i = 0; i < blocks; ++i) {
            unsigned long size = m_input.ConsumeIntegralInRange<unsigned long>(0, 16);
            std::string data = m_input.ConsumeBytesAsString(size);
            data.resize(size, 'w');
            CRtMessageBlock* mb = new CRtMessageBlock(size, Keep(data));
            m_owned.push_back(mb);
            buffers.push_back(data);
            space += size;
            if (head) {
                head->Append(mb);
            } else {
                head = mb;
            }
        }
        unsigned long count = m_input.ConsumeIntegralInRange<unsigned long>(0, space + 2);
        unsigned long n = 99;
        int rv = head->AdvanceChainedWritePtr(count, &n);
        unsigned long expect = std::min(count, space);
        CHECK(n == expect);
        CHECK(rv == (count > 0 && count <= space ? RT_OK : RT_ERROR_PARTIAL_DATA));
        std::string readable;
        for (const std::string& b : buffers) {
            size_t take = std::min<size_t>(b.size(), expect - readable.size());
            readable += b.substr(0, take);
        }
        CHECK(head->FlattenChained() == readable);
        AppendToMain(head, readable);
    }

    void Join() {
        if (!m_other.head) {
            return;
        }
        std::string bytes = m_other.bytes;
        CRtMessageBlock* other = m_other.head;
        m_other = ModelChain();
        AppendToMain(other, bytes);
    }

    void Read(bool aAdvance) {
        if (!m_main.head) {
            return;
        }
        unsigned long count =
            m_input.ConsumeIntegralInRange<unsigned long>(0, m_main.bytes.size() + 3);
        bool bCopy = m_input.ConsumeBool();
        std::string out(count, '\0');
        unsigned long n = 99;
        int rv = m_main.head->Read(bCopy ? &out[0] : nullptr, count, &n, aAdvance);
        unsigned long expect = std::min<unsigned long>(count, m_main.bytes.size());
        CHECK(n == expect);
        CHECK(rv == (count <= m_main.bytes.size() ? RT_OK : RT_ERROR_PARTIAL_DATA));
        if (bCopy) {
            CHECK(out.compare(0, n, m_main.bytes, 0, n) == 0);
        }
        if (aAdvance) {
            m_main.bytes.erase(0, n);
        }
    }

    void Peek() {
        if (!m_main.head) {
            return;
        }
        unsigned long size = m_main.bytes.size();
        unsigned long pos = m_input.ConsumeIntegralInRange<unsigned long>(0, size + 2);
        unsigned long count = m_input.ConsumeIntegralInRange<unsigned long>(0, size + 3);
        std::string out(count, '\0');
        unsigned long n = 99;
        int rv = m_main.head->Peek(&out[0], count, pos, &n);
        if (pos >= size) {
            CHECK(rv == RT_ERROR_PARTIAL_DATA);
            CHECK(n == 99);
            return;
        }
        unsigned long expect = std::min(count, size - pos);
        CHECK(n == expect);
        CHECK(rv == (count <= size - pos ? RT_OK : RT_ERROR_PARTIAL_DATA));
        CHECK(out.compare(0, n, m_main.bytes, pos, n) == 0);
    }

    void AdvanceRead() {
        if (!m_main.head) {
            return;
        }
        unsigned long count =
            m_input.ConsumeIntegralInRange<unsigned long>(0, m_main.bytes.size() + 3);
        unsigned long n = 99;
        int rv = m_main.head->AdvanceChainedReadPtr(count, &n);
        CHECK(n == std::min<unsigned long>(count, m_main.bytes.size()));
        CHECK(rv == (count <= m_main.bytes.size() ? RT_OK : RT_ERROR_PARTIAL_DATA));
        m_main.bytes.erase(0, n);
    }

    static bool AllDuplicated(const CRtMessageBlock* aMb) {
        for (; aMb; aMb = aMb->GetNext()) {
            if (RT_BIT_DISABLED(aMb->GetFlag(), CRtMessageBlock::DUPLICATED)) {
                return false;
            }
        }
        return true;
    }

    void Duplicate() {
        Destroy(m_other);
        if (!m_main.head) {
            return;
        }
        m_other.head = m_main.head->DuplicateChained();
        CHECK(m_other.head && AllDuplicated(m_other.head));
        m_other.bytes = m_main.bytes;
    }

    void Disjoint() {
        if (!m_main.head) {
            return;
        }
        unsigned long size = m_main.bytes.size();
        unsigned long start = m_input.ConsumeIntegralInRange<unsigned long>(0, size + 2);
        CRtMessageBlock* rest = m_main.head->Disjoint(start);
        if (start > size) {
            CHECK(!rest);
            return;
        }
        std::string restBytes = m_main.bytes.substr(start);
        m_main.bytes.resize(start);
        CHECK(rest || restBytes.empty());
        CHECK(AllDuplicated(rest));
        Destroy(m_other);
        m_other.head = rest;
        m_other.bytes = restBytes;
        m_bSaveValid = false;
    }

    void Reclaim() {
        if (!m_main.head) {
            return;
        }
        m_main.head = m_main.head->ReclaimGarbage();
        CHECK(!m_main.head == m_main.bytes.empty());
        CHECK(!m_main.head || m_main.head->GetTopLevelLength() > 0);
        m_bSaveValid = false;
    }

    void FillIov() {
        if (!m_main.head) {
            return;
        }
        iovec iov[kMaxBlocks * 2];
        unsigned long max = m_input.ConsumeIntegralInRange<unsigned long>(0, kMaxBlocks * 2);
        unsigned long maxLength =
            m_input.ConsumeIntegralInRange<unsigned long>(0, m_main.bytes.size() + 3);
        unsigned long count = m_main.head->FillIov(iov, max, maxLength);
        CHECK(count <= max);
        std::string gathered;
        for (unsigned long i = 0; i < count; ++i) {
            CHECK(iov[i].iov_len > 0);
            gathered.append(static_cast<const char*>(iov[i].iov_base), iov[i].iov_len);
        }
        CHECK(gathered.size() <= maxLength);
        CHECK(m_main.bytes.compare(0, gathered.size(), gathered) == 0);
        if (count < max && gathered.size() < maxLength) {
            CHECK(gathered.size() == m_main.bytes.size());
        }
    }

    void SaveOrRewind() {
        if (!m_main.head) {
            return;
        }
        if (m_input.ConsumeBool() || !m_bSaveValid) {
            m_main.head->SaveChainedReadPtr();
            m_saved = m_main.bytes;
            m_bSaveValid = true;
        } else {
            m_main.head->RewindChained(TRUE);
            m_main.bytes = m_saved;
        }
    }

    void RewindWrites() {
        if (!m_main.head) {
            return;
        }
        m_main.head->RewindChained(FALSE);
        m_main.bytes.clear();
        m_bSaveValid = false;
    }

    FuzzedDataProvider& m_input;
    ModelChain m_main;
    ModelChain m_other;
    std::vector<CRtMessageBlock*> m_owned;
    std::deque<std::string> m_arena;
    std::string m_saved;
    bool m_bSaveValid = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* aData, size_t aSize) {
    FuzzedDataProvider input(aData, aSize);
    Harness harness(input);
    for (int steps = 0; steps < 200 && input.remaining_bytes() > 0; ++steps) {
        harness.Step();
    }
    return 0;
}
