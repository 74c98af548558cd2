// CRtThreadReactor: a framework thread whose loop is a reactor, which is then
// the thread's event queue and timer queue. The thread manager creates one for
// the main thread (the host pumps it) and one for the network thread; hosts get
// them through CRtThreadManager and use the CRtThread interface.
//
// Thread rules: Init and Create on the creating thread; OnThreadInit and
// OnThreadRun on the reactor's thread; Stop and the accessors on any thread.
//
// Ownership: Init hands the reactor to the thread object, which deletes it with
// itself. The DNS manager pointer is not owned.
#ifndef RTTHREADREACTOR_H
#define RTTHREADREACTOR_H

#include "rtthread.h"

class CRtDnsManager;

class RT_API CRtThreadReactor : public CRtThread {
public:
    CRtThreadReactor();

    // Once, before Create. Takes ownership of aReactor.
    int Init(IRtReactor* aReactor);
    // Set by the DNS manager when it puts its window on this thread, so that
    // the window goes when the loop ends.
    void SetDnsManager(CRtDnsManager* aDnsManager);

    // For TT_MAIN the reactor is opened here, on the calling thread; for other
    // types the new thread opens it in OnThreadInit.
    int Create(int aType, CRtThreadManager::TFlag aFlag = CRtThreadManager::TF_JOINABLE) override;
    // Asks the loop to end and returns at once; Join waits.
    int Stop(CRtTimeValue* aTimeout = nullptr) override;
    void OnThreadInit() override;
    void OnThreadRun() override;
    IRtReactor* GetReactor() override;
    IRtEventQueue* GetEventQueue() override;
    IRtTimerQueue* GetTimerQueue() override;

protected:
    ~CRtThreadReactor() override;

    IRtReactor* m_pReactor;
    CRtDnsManager* m_pDnsManager;
};

#endif  // RTTHREADREACTOR_H
