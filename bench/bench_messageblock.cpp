// Message blocks against what a host would write without them: a
// std::vector<char> copied at each step, or std::shared_ptr<std::vector<char>>
// slices where it wants to share.
#include <benchmark/benchmark.h>

#include <cstring>
#include <memory>
#include <vector>

#include "rtframework.h"

namespace {

const unsigned long kBlockSize = 2048;
const int kSmallChain = 8;
const int kLargeChain = 32;  // 32 x 2 KiB = 64 KiB

// A chain of aBlocks full blocks the benchmark owns.
class Chain {
public:
    explicit Chain(int aBlocks) {
        std::vector<char> bytes(kBlockSize, 'x');
        for (int i = 0; i < aBlocks; ++i) {
            m_blocks.push_back(new CRtMessageBlock(kBlockSize));
            m_blocks.back()->Write(bytes.data(), kBlockSize);
            if (i > 0) {
                m_blocks.front()->Append(m_blocks.back());
            }
        }
    }
    ~Chain() {
        for (CRtMessageBlock* mb : m_blocks) {
            delete mb;
        }
    }
    CRtMessageBlock* Head() const { return m_blocks.front(); }

private:
    std::vector<CRtMessageBlock*> m_blocks;
};

typedef std::vector<std::vector<char>> CopiedChain;

CopiedChain MakeCopiedChain(int aBlocks) {
    return CopiedChain(aBlocks, std::vector<char>(kBlockSize, 'x'));
}

// A shared piece of a buffer, as a host would cut one with shared_ptr.
struct Slice {
    std::shared_ptr<std::vector<char>> data;
    size_t offset;
    size_t length;
};
typedef std::vector<Slice> SharedChain;

SharedChain MakeSharedChain(int aBlocks) {
    SharedChain chain;
    for (int i = 0; i < aBlocks; ++i) {
        chain.push_back({std::make_shared<std::vector<char>>(kBlockSize, 'x'), 0, kBlockSize});
    }
    return chain;
}

// ---- Create and destroy a 2 KiB buffer.

void BM_MessageBlock_CreateDestroy2K(benchmark::State& state) {
    for (auto _ : state) {
        CRtMessageBlock* mb = new CRtMessageBlock(kBlockSize);
        benchmark::DoNotOptimize(mb->GetTopLevelWritePtr());
        delete mb;
    }
}
BENCHMARK(BM_MessageBlock_CreateDestroy2K);

void BM_Baseline_Vector_CreateDestroy2K(benchmark::State& state) {
    for (auto _ : state) {
        std::vector<char> v(kBlockSize);
        benchmark::DoNotOptimize(v.data());
    }
}
BENCHMARK(BM_Baseline_Vector_CreateDestroy2K);

void BM_Baseline_SharedVector_CreateDestroy2K(benchmark::State& state) {
    for (auto _ : state) {
        auto v = std::make_shared<std::vector<char>>(kBlockSize);
        benchmark::DoNotOptimize(v->data());
    }
}
BENCHMARK(BM_Baseline_SharedVector_CreateDestroy2K);

// ---- Duplicate a chain of 8 blocks (16 KiB) and destroy the duplicate.

void BM_MessageBlock_DuplicateChained8(benchmark::State& state) {
    Chain chain(kSmallChain);
    for (auto _ : state) {
        CRtMessageBlock* dup = chain.Head()->DuplicateChained();
        benchmark::DoNotOptimize(dup);
        dup->DestroyChained();
    }
}
BENCHMARK(BM_MessageBlock_DuplicateChained8);

void BM_Baseline_Vector_Duplicate8(benchmark::State& state) {
    CopiedChain chain = MakeCopiedChain(kSmallChain);
    for (auto _ : state) {
        CopiedChain dup = chain;
        benchmark::DoNotOptimize(dup.data());
    }
}
BENCHMARK(BM_Baseline_Vector_Duplicate8);

void BM_Baseline_SharedVector_Duplicate8(benchmark::State& state) {
    SharedChain chain = MakeSharedChain(kSmallChain);
    for (auto _ : state) {
        SharedChain dup = chain;
        benchmark::DoNotOptimize(dup.data());
    }
}
BENCHMARK(BM_Baseline_SharedVector_Duplicate8);

// ---- Duplicate a chain of 8, split it in the middle of block 4, destroy both
// parts. The duplicate keeps the source intact for the next round; subtract
// the benchmark above for the split alone.

const unsigned long kSplitAt = 3 * kBlockSize + kBlockSize / 2;

void BM_MessageBlock_DuplicateDisjoint8(benchmark::State& state) {
    Chain chain(kSmallChain);
    for (auto _ : state) {
        CRtMessageBlock* dup = chain.Head()->DuplicateChained();
        CRtMessageBlock* rest = dup->Disjoint(kSplitAt);
        benchmark::DoNotOptimize(rest);
        rest->DestroyChained();
        dup->DestroyChained();
    }
}
BENCHMARK(BM_MessageBlock_DuplicateDisjoint8);

void BM_Baseline_Vector_DuplicateSplit8(benchmark::State& state) {
    std::vector<char> chain(kSmallChain * kBlockSize, 'x');
    for (auto _ : state) {
        std::vector<char> dup = chain;
        std::vector<char> rest(dup.begin() + kSplitAt, dup.end());
        dup.resize(kSplitAt);
        benchmark::DoNotOptimize(rest.data());
        benchmark::DoNotOptimize(dup.data());
    }
}
BENCHMARK(BM_Baseline_Vector_DuplicateSplit8);

void BM_Baseline_SharedVector_DuplicateSplit8(benchmark::State& state) {
    SharedChain chain = MakeSharedChain(kSmallChain);
    for (auto _ : state) {
        SharedChain dup = chain;
        size_t index = kSplitAt / kBlockSize;
        size_t offset = kSplitAt % kBlockSize;
        SharedChain rest(dup.begin() + index, dup.end());
        rest.front().offset += offset;
        rest.front().length -= offset;
        dup.resize(index + 1);
        dup.back().length = offset;
        benchmark::DoNotOptimize(rest.data());
        benchmark::DoNotOptimize(dup.data());
    }
}
BENCHMARK(BM_Baseline_SharedVector_DuplicateSplit8);

// ---- Read 64 KiB out of a chain of 32 blocks.

void BM_MessageBlock_Read64K(benchmark::State& state) {
    Chain chain(kLargeChain);
    std::vector<char> out(kLargeChain * kBlockSize);
    for (auto _ : state) {
        unsigned long n = 0;
        chain.Head()->Read(out.data(), out.size(), &n, FALSE);
        benchmark::DoNotOptimize(n);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * out.size());
}
BENCHMARK(BM_MessageBlock_Read64K);

void BM_Baseline_Vector_Read64K(benchmark::State& state) {
    CopiedChain chain = MakeCopiedChain(kLargeChain);
    std::vector<char> out(kLargeChain * kBlockSize);
    for (auto _ : state) {
        size_t pos = 0;
        for (const std::vector<char>& piece : chain) {
            std::memcpy(out.data() + pos, piece.data(), piece.size());
            pos += piece.size();
        }
        benchmark::DoNotOptimize(pos);
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(state.iterations() * out.size());
}
BENCHMARK(BM_Baseline_Vector_Read64K);

// ---- Gather 32 blocks for one send.

void BM_MessageBlock_FillIov32(benchmark::State& state) {
    Chain chain(kLargeChain);
    iovec iov[kLargeChain];
    for (auto _ : state) {
        unsigned long n = chain.Head()->FillIov(iov, kLargeChain, ~0ul);
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(iov);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_MessageBlock_FillIov32);

void BM_Baseline_SharedVector_FillIov32(benchmark::State& state) {
    SharedChain chain = MakeSharedChain(kLargeChain);
    iovec iov[kLargeChain];
    for (auto _ : state) {
        size_t n = 0;
        for (const Slice& s : chain) {
            iov[n].iov_base = s.data->data() + s.offset;
            iov[n].iov_len = s.length;
            ++n;
        }
        benchmark::DoNotOptimize(n);
        benchmark::DoNotOptimize(iov);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Baseline_SharedVector_FillIov32);

// ---- Flatten 64 KiB into one string.

void BM_MessageBlock_Flatten64K(benchmark::State& state) {
    Chain chain(kLargeChain);
    for (auto _ : state) {
        CRtString s = chain.Head()->FlattenChained();
        benchmark::DoNotOptimize(s.data());
    }
    state.SetBytesProcessed(state.iterations() * kLargeChain * kBlockSize);
}
BENCHMARK(BM_MessageBlock_Flatten64K);

void BM_Baseline_Vector_Flatten64K(benchmark::State& state) {
    CopiedChain chain = MakeCopiedChain(kLargeChain);
    for (auto _ : state) {
        // Also the copy a host makes to send the pieces without a gather list.
        std::vector<char> flat;
        flat.reserve(kLargeChain * kBlockSize);
        for (const std::vector<char>& piece : chain) {
            flat.insert(flat.end(), piece.begin(), piece.end());
        }
        benchmark::DoNotOptimize(flat.data());
    }
    state.SetBytesProcessed(state.iterations() * kLargeChain * kBlockSize);
}
BENCHMARK(BM_Baseline_Vector_Flatten64K);

}  // namespace
