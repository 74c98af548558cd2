// Base64 and MD5 throughput on 1 MiB, with a reference MD5 measured in the same
// run: OpenSSL's when it was found at build time, otherwise the md5sum program.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

#include "rtframework.h"

#ifdef KVT_BENCH_HAVE_OPENSSL
#include <openssl/evp.h>
#endif

namespace {

const size_t kMiB = 1024 * 1024;

const CRtString& Data() {
    static const CRtString data = [] {
        std::mt19937 gen(1);
        CRtString d(kMiB, '\0');
        for (char& c : d) {
            c = static_cast<char>(gen());
        }
        return d;
    }();
    return data;
}

const unsigned char* Bytes() {
    return reinterpret_cast<const unsigned char*>(Data().data());
}

}  // namespace

static void BM_Base64Encode_1MiB(benchmark::State& state) {
    CRtString text;
    for (auto _ : state) {
        RtBase64Encode(Bytes(), Data().size(), text);
        benchmark::DoNotOptimize(text.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(Data().size()));
}
BENCHMARK(BM_Base64Encode_1MiB);

// Throughput counts the 1 MiB of bytes that come out.
static void BM_Base64Decode_1MiB(benchmark::State& state) {
    CRtString text;
    RtBase64Encode(Bytes(), Data().size(), text);
    CRtString bytes;
    for (auto _ : state) {
        RtBase64Decode(text.c_str(), bytes);
        benchmark::DoNotOptimize(bytes.data());
    }
    if (bytes != Data()) {
        state.SkipWithError("decoded bytes differ");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(Data().size()));
}
BENCHMARK(BM_Base64Decode_1MiB);

static void BM_MD5_1MiB(benchmark::State& state) {
    unsigned char digest[16];
    for (auto _ : state) {
        benchmark::DoNotOptimize(RtMD5(Bytes(), Data().size(), digest));
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(Data().size()));
}
BENCHMARK(BM_MD5_1MiB);

#ifdef KVT_BENCH_HAVE_OPENSSL
static void BM_MD5_1MiB_OpenSSL(benchmark::State& state) {
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int len = 0;
    for (auto _ : state) {
        EVP_Digest(Bytes(), Data().size(), digest, &len, EVP_md5(), nullptr);
        benchmark::DoNotOptimize(digest);
    }
    unsigned char mine[16];
    if (len != 16 ||
        std::string(reinterpret_cast<char*>(digest), 16) !=
            std::string(reinterpret_cast<char*>(RtMD5(Bytes(), Data().size(), mine)), 16)) {
        state.SkipWithError("digests differ");
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(Data().size()));
}
BENCHMARK(BM_MD5_1MiB_OpenSSL);
#else
// md5sum over 64 copies of the data, so that starting the process weighs little.
static void BM_MD5_1MiB_md5sum(benchmark::State& state) {
    char path[] = "/tmp/kvt_bench_md5_XXXXXX";
    const int fd = mkstemp(path);
    FILE* f = fd >= 0 ? fdopen(fd, "wb") : nullptr;
    if (!f) {
        state.SkipWithError("cannot write the data file");
        return;
    }
    const int kCopies = 64;
    for (int i = 0; i < kCopies; ++i) {
        fwrite(Data().data(), 1, Data().size(), f);
    }
    fclose(f);
    const std::string cmd = std::string("md5sum ") + path + " >/dev/null";
    for (auto _ : state) {
        if (std::system(cmd.c_str()) != 0) {
            state.SkipWithError("md5sum failed");
            break;
        }
    }
    std::remove(path);
    state.SetBytesProcessed(int64_t(state.iterations()) * kCopies * int64_t(Data().size()));
}
// The work happens in a child process: only wall time tells.
BENCHMARK(BM_MD5_1MiB_md5sum)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif
