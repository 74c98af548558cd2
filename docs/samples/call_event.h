// CCallEvent: runs a function on the thread whose queue it is posted or sent
// to. The samples use it to reach the owner thread of a timer queue or reactor.
#ifndef DOCS_SAMPLES_CALL_EVENT_H
#define DOCS_SAMPLES_CALL_EVENT_H

#include <functional>

#include "rtframework.h"

class CCallEvent : public IRtEvent {
public:
    explicit CCallEvent(std::function<int()> aFn) : m_Fn(std::move(aFn)) {}
    int OnEventFire() override { return m_Fn(); }

private:
    std::function<int()> m_Fn;
};

// Runs aFn on aQueue's owner thread and returns its result.
inline int RunOn(IRtEventQueue* aQueue, std::function<int()> aFn) {
    return aQueue->SendEvent(new CCallEvent(std::move(aFn)));
}

#endif  // DOCS_SAMPLES_CALL_EVENT_H
