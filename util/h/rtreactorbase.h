// The platform-independent half of a reactor: the handler registrations, the
// event-queue turn and the timer pass. Building blocks of the library's
// reactors (rtreactorwin32message.h); hosts use them only to write a reactor
// of their own.
//
// Thread rules: those of IRtReactor (rtreactorinterface.h). The owner thread is
// the one that called Open; a call from another thread where the owner is
// required traces an assertion and proceeds. CRtEventHandlerRepository has no
// lock: it lives on the reactor's thread.
//
// Ownership: the reactor owns its timer queue (created by Open, deleted by
// Close) and the events queued on it; it never owns a handler.
#ifndef RTREACTORBASE_H
#define RTREACTORBASE_H

#include <map>

#include "rteventqueuebase.h"
#include "rtreactorinterface.h"
#include "rtutiltemplates.h"

// Handle -> (handler, registered event bits).
class RT_API CRtEventHandlerRepository {
public:
    struct CElement {
        CElement(IRtEventHandler* aEh = nullptr, IRtEventHandler::MASK aMask = 0)
            : m_pEh(aEh), m_Mask(aMask) {}
        bool IsCleared() const { return m_pEh == nullptr; }

        IRtEventHandler* m_pEh;  // not owned
        IRtEventHandler::MASK m_Mask;
    };

    CRtEventHandlerRepository() = default;
    ~CRtEventHandlerRepository();

    // RT_ERROR_ALREADY_INITIALIZED while handles are still registered.
    int Open();
    // Forgets every registration without telling any handler.
    int Close();

    static bool IsVaildHandle(void* aFd) { return aFd != RtInvalidHandle(); }

    // RT_ERROR_NOT_FOUND for an unknown handle.
    int Find(void* aFd, CElement& aEle);
    // RT_ERROR_FOUND when an existing registration was overwritten.
    int Bind(void* aFd, const CElement& aEle);
    // RT_OK whether or not the handle was there.
    int UnBind(void* aFd);

private:
    CRtEventHandlerRepository(const CRtEventHandlerRepository&) = delete;
    CRtEventHandlerRepository& operator=(const CRtEventHandlerRepository&) = delete;

    std::map<void*, CElement> m_Handlers;
};

class RT_API CRtReactorBase : public IRtReactor, public CRtEventQueueUsingMutex {
public:
    CRtReactorBase();
    ~CRtReactorBase() override;

    // Any thread. Wakes the loop when the queue stops being empty; a queue that
    // already held events has its wake-up on the way.
    int PostEvent(IRtEvent* aEvent, EPriority aPri = EPRIORITY_NORMAL) override;
    int SendEvent(IRtEvent* aEvent) override;
    unsigned long GetPendingEventsCount() override;

    int Open() override;
    int RegisterHandler(IRtEventHandler* aEh, IRtEventHandler::MASK aMask) override;
    int RemoveHandler(IRtEventHandler* aEh,
                      IRtEventHandler::MASK aMask = IRtEventHandler::ALL_EVENTS_MASK) override;
    int Close() override;

    int ScheduleTimer(IRtTimerHandler* aEh, void* aToken, const CRtTimeValue& aInterval,
                      unsigned long aCount) override;
    int CancelTimer(IRtTimerHandler* aEh) override;

    // At most this many queued events run per wake-up, so that sockets and
    // timers keep their turn under a flood of events.
    static const unsigned long kMaxEventsPerTurn = 5;

protected:
    // The platform side: stop and start watching a handle.
    virtual int OnHandleRemoved(void* aFd) = 0;
    virtual int OnHandleRegister(void* aFd, IRtEventHandler::MASK aMask, IRtEventHandler* aEh) = 0;

    // Turns one readiness report (or, with aFd invalid, one event-queue
    // wake-up) into callbacks. aReason is only traced. bIsNotify: a wake-up
    // from NotifyHandler; bDropConnect: fail a connect instead of reporting it.
    int ProcessHandleEvent(void* aFd, IRtEventHandler::MASK aMask, int aReason, int bIsNotify,
                           int bDropConnect);
    // Fires the timers that are due.
    void ProcessTimerTick();
    // Takes aMask's bits off the registration aEle of aFd; with SHOULD_CALL and
    // nothing left, tells the handler through OnClose.
    int RemoveHandleWithoutFinding_i(void* aFd, const CRtEventHandlerRepository::CElement& aEle,
                                     IRtEventHandler::MASK aMask);

    CRtStopFlag m_StopFlag;
    CRtEnsureSingleThread m_Est;
    CRtTimerQueueBase* m_pTimerQueue;  // owned
    CRtEventHandlerRepository m_EhRepository;
    int m_bProcessingEvents;
    int m_bPendingNotify;
    // The turn's batch, kept between turns so that its storage is reused
    // (a fresh list costs two allocations a turn). Owner thread only.
    EventsType m_TurnEvents;

private:
    int ProcessEventQueue_i(IRtEventHandler::MASK aMask);
    // aStartUsec: the library's coarse clock when the handle event began.
    void ReportSlowHandle_i(int64_t aStartUsec, void* aFd, IRtEventHandler::MASK aMask,
                            const CRtEventHandlerRepository::CElement& aEle, int aReason);
};

#endif  // RTREACTORBASE_H
