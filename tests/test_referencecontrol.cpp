#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "rtreferencecontrol.h"
#include "trace_capture.h"

namespace {

// Counts its destructions instead of freeing itself, so tests can look at it
// after the last reference.
class CountedObject : public CRtReferenceControl {
public:
    explicit CountedObject(std::vector<int>* aLog = nullptr, int aId = 0)
        : m_pLog(aLog), m_nId(aId) {}
    int m_nDestroyed = 0;

protected:
    void OnReferenceDestroy() override {
        ++m_nDestroyed;
        if (m_pLog) {
            m_pLog->push_back(-m_nId);
        }
    }

private:
    std::vector<int>* m_pLog;
    int m_nId;
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

TEST(ReferenceControl, CountsAndDestroysOnceAtZero) {
    CountedObject obj;
    EXPECT_EQ(obj.GetReference(), 0u);
    EXPECT_EQ(obj.AddReference(), 1u);
    EXPECT_EQ(obj.AddReference(), 2u);
    EXPECT_EQ(obj.ReleaseReference(), 1u);
    EXPECT_EQ(obj.m_nDestroyed, 0);
    EXPECT_EQ(obj.ReleaseReference(), 0u);
    EXPECT_EQ(obj.m_nDestroyed, 1);
}

TEST(ReferenceControl, DefaultDestroyDeletesTheObject) {
    int deleted = 0;
    HeapObject* obj = new HeapObject(&deleted);
    obj->AddReference();
    obj->AddReference();
    obj->ReleaseReference();
    EXPECT_EQ(deleted, 0);
    obj->ReleaseReference();
    EXPECT_EQ(deleted, 1);
}

TEST(ReferenceControl, ReleasingTooOftenIsTracedAndNeverDestroysTwice) {
    TraceCapture capture;
    CountedObject obj;
    obj.AddReference();
    obj.ReleaseReference();
    EXPECT_EQ(obj.ReleaseReference(), 0u);
    EXPECT_EQ(obj.m_nDestroyed, 1);
    EXPECT_EQ(obj.GetReference(), 0u);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: dwOld > 0"));
}

TEST(ReferenceControl, ConcurrentReferencesFromManyThreadsDestroyExactlyOnce) {
    CountedObject obj;
    obj.AddReference();  // the creator's
    const int kThreads = 4;
    const int kRounds = 20000;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&obj] {
            for (int i = 0; i < kRounds; ++i) {
                obj.AddReference();
                obj.ReleaseReference();
            }
        });
    }
    for (std::thread& t : threads) {
        t.join();
    }
    EXPECT_EQ(obj.GetReference(), 1u);
    EXPECT_EQ(obj.m_nDestroyed, 0);
    obj.ReleaseReference();
    EXPECT_EQ(obj.m_nDestroyed, 1);
}

TEST(AutoPtr, HoldsOneReferenceForItsLifetime) {
    CountedObject obj;
    {
        CRtAutoPtr<CountedObject> p(&obj);
        EXPECT_EQ(obj.GetReference(), 1u);
        CRtAutoPtr<CountedObject> copy(p);
        EXPECT_EQ(obj.GetReference(), 2u);
        CRtAutoPtr<CountedObject> moved(std::move(copy));
        EXPECT_EQ(obj.GetReference(), 2u);
        EXPECT_FALSE(copy);
        EXPECT_TRUE(moved);
        EXPECT_EQ(moved.Get(), &obj);
        EXPECT_EQ(moved->GetReference(), 2u);
    }
    EXPECT_EQ(obj.GetReference(), 0u);
    EXPECT_EQ(obj.m_nDestroyed, 1);
}

TEST(AutoPtr, AssigningTheHeldPointerNeverFreesIt) {
    CountedObject obj;
    CRtAutoPtr<CountedObject> p(&obj);
    p = p.Get();
    p = p;
    EXPECT_EQ(obj.m_nDestroyed, 0);
    EXPECT_EQ(obj.GetReference(), 1u);
}

TEST(AutoPtr, NewObjectGainsItsReferenceBeforeTheOldOneIsReleased) {
    std::vector<int> log;
    CountedObject a(&log, 1);
    CountedObject b(&log, 2);
    CRtAutoPtr<CountedObject> p(&a);
    p = &b;
    EXPECT_EQ(a.m_nDestroyed, 1);
    EXPECT_EQ(b.GetReference(), 1u);
    ASSERT_EQ(log, std::vector<int>{-1});
    p = nullptr;
    EXPECT_EQ(b.m_nDestroyed, 1);
    EXPECT_FALSE(p);
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

TEST(AutoPtr, AccessThroughANullPointerIsTraced) {
    TraceCapture capture;
    CRtAutoPtr<CountedObject> p;
    EXPECT_EQ(p.operator->(), nullptr);
    EXPECT_EQ(1u, TraceCapture::TakeCount("Assert failed: m_pRawPtr"));
}
