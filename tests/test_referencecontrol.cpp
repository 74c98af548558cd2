#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "rtreferencecontrol.h"
#include "trace_capture.h"

namespace {

// Counts its destructions instead of freeing itself, so tests can look at it
// after the last reference.
class CountedObject : public CRtReferenceControl {
public:
    int m_nDestroyed = 0;

protected:
    void OnReferenceDestroy() override { ++m_nDestroyed; }
};

// Uses the default OnReferenceDestroy, which deletes the object.
class HeapObject : public CRtReferenceControl {
public:
    explicit HeapObject(int* aDeleted) : m_pDeleted(aDeleted) {}
    ~HeapObject() override { ++*m_pDeleted; }

private:
    int* m_pDeleted;
};

}  // namespace

TEST(ReferenceControl, DestroysOnceAtZeroAndTracesReleasingTooOften) {
    TraceCapture capture;
    CountedObject obj;
    EXPECT_EQ(obj.AddReference(), 1u);
    EXPECT_EQ(obj.AddReference(), 2u);
    EXPECT_EQ(obj.ReleaseReference(), 1u);
    EXPECT_EQ(obj.m_nDestroyed, 0);
    EXPECT_EQ(obj.ReleaseReference(), 0u);
    EXPECT_EQ(obj.m_nDestroyed, 1);
    EXPECT_EQ(obj.ReleaseReference(), 0u);
    EXPECT_EQ(obj.m_nDestroyed, 1);
    EXPECT_EQ(obj.GetReference(), 0u);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: dwOld > 0"));

    int deleted = 0;
    HeapObject* heap = new HeapObject(&deleted);
    heap->AddReference();
    heap->AddReference();
    heap->ReleaseReference();
    EXPECT_EQ(deleted, 0);
    heap->ReleaseReference();
    EXPECT_EQ(deleted, 1);
}

// Every thread holds a reference and churns more; whichever release comes
// last destroys, exactly once.
TEST(ReferenceControl, ConcurrentReleasesDestroyExactlyOnce) {
    const int kThreads = 4;
    const int kRounds = 20000;
    CountedObject obj;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        obj.AddReference();
    }
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&obj] {
            for (int i = 0; i < kRounds; ++i) {
                obj.AddReference();
                obj.ReleaseReference();
            }
            obj.ReleaseReference();
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(obj.GetReference(), 0u);
    EXPECT_EQ(obj.m_nDestroyed, 1);
}

TEST(AutoPtr, HoldsOneReferenceForItsLifetime) {
    CountedObject obj;
    {
        CRtAutoPtr<CountedObject> p(&obj);
        CRtAutoPtr<CountedObject> copy(p);
        EXPECT_EQ(obj.GetReference(), 2u);
        CRtAutoPtr<CountedObject> moved(std::move(copy));
        EXPECT_EQ(obj.GetReference(), 2u);
        EXPECT_FALSE(copy);
        EXPECT_EQ(moved.Get(), &obj);
        p = p.Get();  // assigning the held pointer never frees it
        p = p;
        EXPECT_EQ(obj.GetReference(), 2u);
    }
    EXPECT_EQ(obj.GetReference(), 0u);
    EXPECT_EQ(obj.m_nDestroyed, 1);
}

TEST(AutoPtr, ReassigningReleasesTheOldObject) {
    CountedObject a;
    CountedObject b;
    CRtAutoPtr<CountedObject> p(&a);
    p = &b;
    EXPECT_EQ(a.m_nDestroyed, 1);
    EXPECT_EQ(b.GetReference(), 1u);
    p = nullptr;
    EXPECT_EQ(b.m_nDestroyed, 1);
    EXPECT_FALSE(p);

    TraceCapture capture;
    EXPECT_EQ(p.operator->(), nullptr);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: m_pRawPtr"));
}

TEST(AutoPtr, ParaOutLetsAFactoryStoreACountedObject) {
    CountedObject old;
    CountedObject made;
    CRtAutoPtr<CountedObject> p(&old);
    CountedObject*& slot = p.ParaOut();
    EXPECT_EQ(old.m_nDestroyed, 1);
    EXPECT_EQ(slot, nullptr);
    made.AddReference();  // as a factory does
    slot = &made;
    EXPECT_EQ(p.Get(), &made);
    p = nullptr;
    EXPECT_EQ(made.m_nDestroyed, 1);
}
