// Reference counting: CRtReferenceControl, the base of every shared object of
// the library (data blocks, DNS records), and CRtAutoPtr<T>, the counted
// pointer over it. Hosts use both directly for their own shared objects.
//
// Thread rules: AddReference and ReleaseReference may be called on any thread
// at any time; the count changes atomically and no lock is taken, so the last
// reference may go on any thread. A CRtAutoPtr object itself is used by one
// thread at a time, like any pointer variable.
#ifndef RTREFERENCECONTROL_H
#define RTREFERENCECONTROL_H

#include <atomic>
#include <cstdint>

#include "rtdebug.h"
#include "rtdefines.h"

// An object that lives while it has references. It starts with a count of 0:
// whoever creates it takes the first reference (CRtAutoPtr does so on
// assignment). When the count falls to 0, OnReferenceDestroy runs; by default
// it deletes the object, so objects using the default must be made with new.
class RT_API CRtReferenceControl {
public:
    CRtReferenceControl() : m_dwReference(0) {}
    virtual ~CRtReferenceControl();

    // Both return the count after the change.
    uint32_t AddReference() { return m_dwReference.fetch_add(1, std::memory_order_relaxed) + 1; }
    uint32_t ReleaseReference();

    // A snapshot: other threads may change it at once.
    uint32_t GetReference() const { return m_dwReference.load(std::memory_order_relaxed); }

protected:
    // Runs once, on the thread that released the last reference.
    virtual void OnReferenceDestroy();

private:
    CRtReferenceControl(const CRtReferenceControl&) = delete;
    CRtReferenceControl& operator=(const CRtReferenceControl&) = delete;

    std::atomic<uint32_t> m_dwReference;
};

// Holds one reference to a T (a CRtReferenceControl) for as long as it points
// to it.
template <class T>
class CRtAutoPtr {
public:
    CRtAutoPtr(T* aPtr = nullptr) : m_pRawPtr(aPtr) {  // NOLINT: converts like a raw pointer
        if (m_pRawPtr) {
            m_pRawPtr->AddReference();
        }
    }
    CRtAutoPtr(const CRtAutoPtr& aOther) : CRtAutoPtr(aOther.m_pRawPtr) {}
    CRtAutoPtr(CRtAutoPtr&& aOther) noexcept : m_pRawPtr(aOther.m_pRawPtr) {
        aOther.m_pRawPtr = nullptr;
    }
    ~CRtAutoPtr() {
        if (m_pRawPtr) {
            m_pRawPtr->ReleaseReference();
        }
    }

    // The new object gains its reference before the old one loses its own, so
    // assigning the pointer already held never frees it.
    CRtAutoPtr& operator=(T* aPtr) {
        if (aPtr == m_pRawPtr) {
            return *this;
        }
        if (aPtr) {
            aPtr->AddReference();
        }
        T* pOld = m_pRawPtr;
        m_pRawPtr = aPtr;
        if (pOld) {
            pOld->ReleaseReference();
        }
        return *this;
    }
    CRtAutoPtr& operator=(const CRtAutoPtr& aOther) { return *this = aOther.m_pRawPtr; }
    CRtAutoPtr& operator=(CRtAutoPtr&& aOther) noexcept {
        if (this != &aOther) {
            T* pOld = m_pRawPtr;
            m_pRawPtr = aOther.m_pRawPtr;
            aOther.m_pRawPtr = nullptr;
            if (pOld) {
                pOld->ReleaseReference();
            }
        }
        return *this;
    }

    T* operator->() const {
        RT_ASSERTE(m_pRawPtr);
        return m_pRawPtr;
    }
    T& operator*() const {
        RT_ASSERTE(m_pRawPtr);
        return *m_pRawPtr;
    }
    T* Get() const { return m_pRawPtr; }
    explicit operator bool() const { return m_pRawPtr != nullptr; }

    // Drops the held reference and hands out the raw pointer slot, so that a
    // factory can store an object whose reference it has already counted:
    //   CRtDataBlock::CreateInstance(ptr.ParaOut(), size, nullptr);
    T*& ParaOut() {
        if (m_pRawPtr) {
            m_pRawPtr->ReleaseReference();
            m_pRawPtr = nullptr;
        }
        return m_pRawPtr;
    }

private:
    T* m_pRawPtr;
};

#endif  // RTREFERENCECONTROL_H
