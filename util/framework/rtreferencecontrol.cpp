#include "rtreferencecontrol.h"

CRtReferenceControl::~CRtReferenceControl() = default;

uint32_t CRtReferenceControl::ReleaseReference() {
    // acq_rel: the thread that frees the object sees every write made through
    // the other references before they were released.
    uint32_t dwOld = m_dwReference.fetch_sub(1, std::memory_order_acq_rel);
    RT_ASSERTE(dwOld > 0);
    if (dwOld == 0) {
        // Released more often than referenced: undo, so the object is never freed twice.
        m_dwReference.fetch_add(1, std::memory_order_relaxed);
        return 0;
    }
    if (dwOld == 1) {
        OnReferenceDestroy();
    }
    return dwOld - 1;
}

void CRtReferenceControl::OnReferenceDestroy() {
    delete this;
}
