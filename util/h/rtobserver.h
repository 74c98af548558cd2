// IRtObserver: the notification interface hosts implement to hear about
// library-wide happenings. Hosts implement it directly; the library only calls
// it. Topics the library sends: "TimerQueue" (a timer queue went from empty to
// non-empty) and "DnsManager" (a name lookup finished).
#ifndef RTOBSERVER_H
#define RTOBSERVER_H

#include "rtdefines.h"

// The library calls OnObserve on the thread where the happening took place,
// holding none of its locks, and ignores the result. Ownership stays with the
// host: whoever hands an observer to the library keeps it alive while it is
// registered.
class RT_API IRtObserver {
public:
    // aData is topic specific; "TimerQueue" passes null, "DnsManager" an int*
    // holding the lookup's result code (RT_OK when the name resolved).
    virtual void OnObserve(const char* aTopic, void* aData) = 0;

    virtual ~IRtObserver() = default;
};

#endif  // RTOBSERVER_H
