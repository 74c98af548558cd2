// The owner-thread check.
#include "rtutiltemplates.h"

#include "rtdebug.h"
#include "rtos.h"

namespace {
inline bool IsThreadEqual(uint32_t aLeft, uint32_t aRight) { return aLeft == aRight; }
}  // namespace

CRtEnsureSingleThread::CRtEnsureSingleThread() : m_ThreadIdOpen(rtos::CurrentThreadId()) {}

void CRtEnsureSingleThread::EnsureSingleThread() const {
    uint32_t tidCur = rtos::CurrentThreadId();
    (void)tidCur;
    RT_ASSERTE(IsThreadEqual(m_ThreadIdOpen, tidCur));
}

void CRtEnsureSingleThread::Reset2CurrentThreadId() { m_ThreadIdOpen = rtos::CurrentThreadId(); }

void CRtEnsureSingleThread::Reset2ThreadId(unsigned long aTid) {
    m_ThreadIdOpen = static_cast<uint32_t>(aTid);
}
