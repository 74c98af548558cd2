// Asynchronous lookups on Windows: WSAAsyncGetHostByName, answered to a
// hidden window on a lookup thread of this layer, which copies the result into
// the caller's buffer and posts the completion to the caller's window.
//
// The detour keeps the caller's buffer out of Winsock's hands: a cancel that
// WSACancelAsyncRequest cannot honour (the lookup is under way, or Wine, whose
// cancel does nothing) would otherwise still write into a buffer the caller
// has freed. Here a cancel takes the request out of the table under the
// table's lock; the answer, written under the same lock only for requests
// still in the table, then finds nothing to write to. Winsock's own buffer
// lives until its answer arrives (or forever, if a cancel succeeded there).
//
// Lookups through a stand-in (SetHostLookup) run on a thread of their own
// each, since a stand-in may block as long as it likes.
#include <winsock2.h>
#include <windows.h>

#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include "rtos_winsock.h"
#include "rtosnet.h"
#include "common/rtos_lookup.h"

namespace rtos {

namespace {

constexpr UINT kAnswerMsg = WM_USER + 1;

struct Request {
    WindowHandle wnd;
    uint32_t msg;
    void* buf;
    size_t len;
    HANDLE task;                     // Winsock's request; null for a stand-in lookup
    std::unique_ptr<char[]> answer;  // Winsock's buffer, MAXGETHOSTSTRUCT bytes
};

HostInfo InfoOf(const hostent* aHost) {
    HostInfo info;
    if (!aHost || aHost->h_addrtype != AF_INET || aHost->h_length != 4) {
        return info;
    }
    info.name = aHost->h_name ? aHost->h_name : "";
    for (char** p = aHost->h_aliases; p && *p; ++p) {
        info.aliases.push_back(*p);
    }
    for (char** p = aHost->h_addr_list; p && *p; ++p) {
        uint32_t addr;
        ::memcpy(&addr, *p, 4);
        info.addrs.push_back(addr);
    }
    return info;
}

class LookupTable {
public:
    static LookupTable& Instance() {
        static LookupTable* s_table = new LookupTable;  // never destroyed: used at exit
        return *s_table;
    }

    AsyncRequest Start(WindowHandle aWnd, uint32_t aMsg, const char* aName, void* aBuf,
                       size_t aLen) {
        std::unique_ptr<Request> req(new Request{aWnd, aMsg, aBuf, aLen, nullptr, nullptr});
        std::lock_guard<std::mutex> lock(m_lock);
        const AsyncRequest id = m_nextId++;
        if (HostLookupStandIn()) {
            std::thread(&LookupTable::StandInLookup, this, id, std::string(aName)).detach();
        } else {
            if (!EnsureWinsock() || !StartWindow_l()) {
                return 0;
            }
            req->answer.reset(new char[MAXGETHOSTSTRUCT]);
            req->task = ::WSAAsyncGetHostByName(m_answerWnd, kAnswerMsg, aName, req->answer.get(),
                                                MAXGETHOSTSTRUCT);
            if (!req->task) {
                return 0;
            }
            m_byTask[req->task] = id;
        }
        m_requests[id] = std::move(req);
        return id;
    }

    bool Cancel(AsyncRequest aId) {
        std::lock_guard<std::mutex> lock(m_lock);
        auto it = m_requests.find(aId);
        if (it == m_requests.end()) {
            ::SetLastError(WSAEINVAL);
            return false;
        }
        if (HANDLE task = it->second->task) {
            if (::WSACancelAsyncRequest(task) == 0) {
                // No answer will come on Windows; Wine's may: the buffer stays.
                it->second->answer.release();
            }
            m_byTask.erase(task);
        }
        m_requests.erase(it);
        return true;
    }

private:
    LookupTable() = default;

    // The answer window lives on a thread of its own that only pumps answers.
    bool StartWindow_l() {
        if (m_answerWnd) {
            return true;
        }
        HANDLE ready = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
        if (!ready) {
            return false;
        }
        std::thread(&LookupTable::AnswerLoop, this, ready).detach();
        ::WaitForSingleObject(ready, INFINITE);
        ::CloseHandle(ready);
        return m_answerWnd != nullptr;
    }

    void AnswerLoop(HANDLE aReady) {
        WNDCLASSA wc = {};
        wc.lpfnWndProc = &LookupTable::AnswerProc;
        wc.hInstance = ::GetModuleHandleA(nullptr);
        wc.lpszClassName = "RtosLookupAnswer";
        ::RegisterClassA(&wc);
        m_answerWnd = ::CreateWindowExA(0, wc.lpszClassName, "", 0, 0, 0, 0, 0, HWND_MESSAGE,
                                        nullptr, wc.hInstance, nullptr);
        ::SetEvent(aReady);
        MSG msg;
        while (m_answerWnd && ::GetMessageA(&msg, nullptr, 0, 0) > 0) {
            ::DispatchMessageA(&msg);
        }
    }

    static LRESULT CALLBACK AnswerProc(HWND aWnd, UINT aMsg, WPARAM aWParam, LPARAM aLParam) {
        if (aMsg != kAnswerMsg) {
            return ::DefWindowProcA(aWnd, aMsg, aWParam, aLParam);
        }
        Instance().OnAnswer(reinterpret_cast<HANDLE>(aWParam), WSAGETASYNCERROR(aLParam));
        return 0;
    }

    void OnAnswer(HANDLE aTask, int aError) {
        std::lock_guard<std::mutex> lock(m_lock);
        auto task = m_byTask.find(aTask);
        if (task == m_byTask.end()) {
            return;  // cancelled; the answer's buffer went with the request, or leaks
        }
        const AsyncRequest id = task->second;
        m_byTask.erase(task);
        auto it = m_requests.find(id);
        std::unique_ptr<Request> req = std::move(it->second);
        m_requests.erase(it);
        HostInfo info;
        if (aError == 0) {
            info = InfoOf(reinterpret_cast<const hostent*>(req->answer.get()));
            if (info.addrs.empty()) {
                aError = kNoData;
            }
        }
        Complete_l(id, *req, aError, info);
    }

    void StandInLookup(AsyncRequest aId, const std::string& aName) {
        HostInfo info;
        int err = LookupHostIPv4(aName.c_str(), info);
        std::lock_guard<std::mutex> lock(m_lock);
        auto it = m_requests.find(aId);
        if (it == m_requests.end()) {
            return;  // cancelled meanwhile: the buffer may be gone
        }
        std::unique_ptr<Request> req = std::move(it->second);
        m_requests.erase(it);
        Complete_l(aId, *req, err, info);
    }

    // Posting under the lock keeps a failed cancel behind the completion.
    static void Complete_l(AsyncRequest aId, const Request& aReq, int aError,
                           const HostInfo& aInfo) {
        if (aError == 0) {
            hostent* host = nullptr;
            aError = LayoutHostent(aInfo, aReq.buf, aReq.len, &host);
        }
        WindowPostMessage(aReq.wnd, aReq.msg, aId, AsyncLookupLParam(aError));
    }

    std::mutex m_lock;
    std::unordered_map<AsyncRequest, std::unique_ptr<Request>> m_requests;
    std::unordered_map<HANDLE, AsyncRequest> m_byTask;
    AsyncRequest m_nextId = 1;
    HWND m_answerWnd = nullptr;
};

}  // namespace

AsyncRequest AsyncGetHostByName(WindowHandle aWnd, uint32_t aMsg, const char* aName, void* aBuf,
                                size_t aLen) {
    if (!aWnd || !aName || !aBuf) {
        ::SetLastError(WSAEINVAL);
        return 0;
    }
    try {
        return LookupTable::Instance().Start(aWnd, aMsg, aName, aBuf, aLen);
    } catch (const std::exception&) {
        ::SetLastError(WSAENOBUFS);
        return 0;
    }
}

bool AsyncCancel(AsyncRequest aRequest) {
    return LookupTable::Instance().Cancel(aRequest);
}

}  // namespace rtos
