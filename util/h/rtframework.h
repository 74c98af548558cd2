// kvtframework: everything a host program uses, in one include.
#ifndef RTFRAMEWORK_H
#define RTFRAMEWORK_H

#include "rtdefines.h"
#include "rterror.h"
#include "rttimevalue.h"
#include "rttrace.h"
#include "rtconfig.h"
#include "rtdebug.h"
#include "rtmutex.h"
#include "rtconditionvariable.h"
#include "rtutiltemplates.h"
#include "rtobserver.h"
#include "rttimerqueuebase.h"
#include "rttimerqueueorderedlist.h"
#include "rttimerwrapper.h"
#include "rtreferencecontrol.h"
#include "rtdatablock.h"
#include "rtmessageblock.h"
#include "rtutilclasses.h"
#include "rteventqueuebase.h"
#include "rtthreadmanager.h"
#include "rtthread.h"
#include "rtthreadtask.h"
#include "rtreactorinterface.h"
#include "rtreactorbase.h"
#include "rtreactorwin32message.h"
#include "rtthreadreactor.h"
#include "rtmainloop.h"
#include "rtinetaddr.h"
#include "rtsocket.h"

#endif  // RTFRAMEWORK_H
