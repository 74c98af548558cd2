// Task thread loops and their stop event.
#include "rtthreadtask.h"

#include "rtdebug.h"
#include "rttimerqueueorderedlist.h"

// ---- CRtStopTaskEvent --------------------------------------------------------

CRtStopTaskEvent::CRtStopTaskEvent(CRtThreadTaskWithEventQueueOnly* aQueue) : m_pQueue(aQueue) {
    RT_ASSERTE(m_pQueue);
}

int CRtStopTaskEvent::OnEventFire() {
    if (m_pQueue) {
        m_pQueue->m_Stop.SetStopFlag();
    }
    return RT_OK;
}

// ---- CRtThreadTaskWithEventQueueOnly -----------------------------------------

CRtThreadTaskWithEventQueueOnly::CRtThreadTaskWithEventQueueOnly() = default;

CRtThreadTaskWithEventQueueOnly::~CRtThreadTaskWithEventQueueOnly() = default;

int CRtThreadTaskWithEventQueueOnly::Stop(CRtTimeValue* aTimeout) {
    (void)aTimeout;
    RT_INFO_TRACE("CRtThreadTaskWithEventQueueOnly::Stop");
    int rv = RT_ERROR_OUT_OF_MEMORY;
    CRtStopTaskEvent* pEvent = new (std::nothrow) CRtStopTaskEvent(this);
    if (pEvent) {
        rv = GetEventQueue()->PostEvent(pEvent, IRtEventQueue::EPRIORITY_NORMAL);
    }
    m_EventQueue.Stop();
    return rv;
}

void CRtThreadTaskWithEventQueueOnly::OnThreadInit() {
    m_EventQueue.Reset2CurrentThreadId();
    m_Stop.m_Est.Reset2CurrentThreadId();
    m_Stop.SetStartFlag();
}

void CRtThreadTaskWithEventQueueOnly::OnThreadRun() {
    RT_INFO_TRACE("CRtThreadTaskWithEventQueueOnly::OnThreadRun, Begin.");
    // One list for the whole loop: swapped with the queue's, it keeps its storage.
    CRtEventQueueBase::EventsType events;
    while (!m_Stop.IsFlagStopped()) {
        if (RT_SUCCEEDED(m_EventQueue.PopOrWaitPendingEvents(events, nullptr, 0xFFFFFFFF))) {
            m_EventQueue.ProcessEvents(events);
            events.clear();
        }
    }
    m_EventQueue.DestoryPendingEvents();
    RT_INFO_TRACE("CRtThreadTaskWithEventQueueOnly::OnThreadRun, End.");
}

IRtEventQueue* CRtThreadTaskWithEventQueueOnly::GetEventQueue() {
    return &m_EventQueue;
}

// ---- CRtThreadTask -----------------------------------------------------------

CRtThreadTask::CRtThreadTask() : m_pTimerQueue(nullptr) {}

CRtThreadTask::~CRtThreadTask() {
    // Pending timers go without their handlers being called.
    delete m_pTimerQueue;
}

void CRtThreadTask::OnThreadInit() {
    RT_ASSERTE(!m_pTimerQueue);
    // Built here so that the queue's owner is the thread that runs the loop.
    m_pTimerQueue = new (std::nothrow) CRtTimerQueueOrderedList(nullptr);
    RT_ASSERTE(m_pTimerQueue);
    CRtThreadTaskWithEventQueueOnly::OnThreadInit();
}

void CRtThreadTask::OnThreadRun() {
    RT_INFO_TRACE("CRtThreadTask::OnThreadRun, Begin.");
    // At most 5 events per pass, so a flood of events delays a due timer by
    // no more than 5 event runs.
    const unsigned long kEventsPerPass = 5;
    CRtEventQueueBase::EventsType events;
    while (!m_Stop.IsFlagStopped()) {
        CRtTimeValue remain = CRtTimeValue::s_tvMax;
        if (m_pTimerQueue) {
            m_pTimerQueue->CheckExpire(&remain);
        }
        // No timer left: block until an event comes.
        CRtTimeValue* pLimit = remain == CRtTimeValue::s_tvMax ? nullptr : &remain;
        if (RT_SUCCEEDED(m_EventQueue.PopOrWaitPendingEvents(events, pLimit, kEventsPerPass))) {
            m_EventQueue.ProcessEvents(events);
            events.clear();
        }
    }
    m_EventQueue.DestoryPendingEvents();
    RT_INFO_TRACE("CRtThreadTask::OnThreadRun, End.");
}

IRtTimerQueue* CRtThreadTask::GetTimerQueue() {
    return m_pTimerQueue;
}
