// Reactor churn: rounds of handlers that remove themselves or each other in
// their callbacks, peers that close or reset, and descriptors closed and
// opened again (taking the same number) while their readiness is still being
// dispatched. No callback may reach a removed handler and none may be lost for
// a live one.
#include <memory>
#include <random>
#include <vector>

#include "loopback_helpers.h"
#include "stress_common.h"

namespace {

enum class Role { Echo, SelfRemove, RemoveOther, Reopen, PeerCloses, PeerResets, kCount };

bool Acts(Role aRole) {
    return aRole == Role::SelfRemove || aRole == Role::RemoveOther || aRole == Role::Reopen;
}

class ChurnRound;

struct ChurnHandler : public IRtEventHandler {
    ChurnHandler(ChurnRound* aRound, Role aRole, int aFd, long aExpected)
        : round(aRound), role(aRole), fd(aFd), expected(aExpected) {}
    void* GetHandle() const override { return reinterpret_cast<void*>(intptr_t(fd)); }
    int OnInput(void*) override;
    int OnClose(void*, MASK) override;

    ChurnRound* round;
    Role role;
    int fd;          // -1 once closed by another handler
    long expected;   // bytes its peer sends
    long bytes = 0;  // bytes it read
    bool removed = false;
    bool removedByOther = false;
    bool acted = false;
    int closes = 0;
};

// Everything of a round that the reactor's thread touches: handlers, their
// local descriptors and the peers opened in callbacks.
class ChurnRound {
public:
    ChurnRound(IRtReactor* aReactor, std::mt19937* aRng) : m_reactor(aReactor), m_rng(aRng) {}

    int Add(Role aRole, int aFd, long aExpected) {
        m_handlers.push_back(std::make_unique<ChurnHandler>(this, aRole, aFd, aExpected));
        return m_reactor->RegisterHandler(m_handlers.back().get(), IRtEventHandler::READ_MASK);
    }

    int Input(ChurnHandler& aH) {
        violations += aH.removed;
        char buf[4096];
        ssize_t n;
        while ((n = ::recv(aH.fd, buf, sizeof(buf), MSG_DONTWAIT)) > 0) {
            aH.bytes += n;
        }
        if (n == 0 || errno != EAGAIN) {
            return -1;  // closed or reset: the reactor removes it and calls OnClose
        }
        if (aH.acted) {
            return 0;
        }
        aH.acted = true;
        ChurnHandler* other = aH.role == Role::SelfRemove ? &aH
                              : Acts(aH.role)             ? PickLiveOther(aH)
                                                          : nullptr;
        if (!other) {
            return 0;
        }
        violations += m_reactor->RemoveHandler(other) != RT_OK;
        other->removed = true;
        other->removedByOther = other != &aH;
        if (aH.role == Role::Reopen) {
            Reopen(*other);
        }
        return 0;
    }

    void Closed(ChurnHandler& aH) {
        violations += aH.removed || aH.closes > 0 ||
                      (aH.role != Role::PeerCloses && aH.role != Role::PeerResets);
        ++aH.closes;
        aH.removed = true;
    }

    // Every handler that nobody else removed got what its peer did.
    bool Complete() const {
        for (const auto& h : m_handlers) {
            const bool read = h->role == Role::PeerResets || h->bytes == h->expected;
            const bool closed = h->closes == 1 || h->role == Role::Echo;
            if (!h->removedByOther && !(Acts(h->role) ? h->acted : read && closed)) {
                return false;
            }
        }
        return true;
    }

    // Removes what is still registered and closes every descriptor.
    void End() {
        for (const auto& h : m_handlers) {
            if (!h->removed) {
                violations += m_reactor->RemoveHandler(h.get()) != RT_OK;
            }
            if (h->fd >= 0) {
                ::close(h->fd);
            }
        }
        for (int fd : m_peers) {
            ::close(fd);
        }
    }

    long violations = 0;
    long reopened = 0;
    long sameNumber = 0;

private:
    ChurnHandler* PickLiveOther(const ChurnHandler& aH) {
        std::vector<ChurnHandler*> live;
        for (const auto& h : m_handlers) {
            if (h.get() != &aH && !h->removed) {
                live.push_back(h.get());
            }
        }
        return live.empty() ? nullptr : live[(*m_rng)() % live.size()];
    }

    // Closes the removed handler's descriptor and at once opens a socket that
    // usually takes the same number, with a live handler and data on it.
    void Reopen(ChurnHandler& aOld) {
        const int oldFd = aOld.fd;
        ::close(oldFd);
        aOld.fd = -1;
        int pair[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) {
            ++violations;
            return;
        }
        ++reopened;
        sameNumber += pair[0] == oldFd;
        m_peers.push_back(pair[1]);
        violations += ::send(pair[1], "re", 2, MSG_NOSIGNAL) != 2;
        violations += Add(Role::Echo, pair[0], 2) != RT_OK;
    }

    IRtReactor* m_reactor;
    std::mt19937* m_rng;
    std::vector<std::unique_ptr<ChurnHandler>> m_handlers;
    std::vector<int> m_peers;
};

int ChurnHandler::OnInput(void*) {
    return round->Input(*this);
}

int ChurnHandler::OnClose(void*, MASK) {
    return round->Closed(*this), 0;
}

// A connected pair: TCP when it is to be reset, AF_UNIX otherwise.
bool MakePair(bool aTcp, int aListener, int aPair[2]) {
    if (!aTcp) {
        return ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, aPair) == 0;
    }
    sockaddr_in a = Loopback(PortOf(aListener));
    aPair[1] = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(aPair[1], reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) {
        ::close(aPair[1]);
        return false;
    }
    aPair[0] = ::accept4(aListener, nullptr, nullptr, SOCK_CLOEXEC);
    return aPair[0] >= 0;
}

}  // namespace

TEST(ReactorStress, ChurningHandlersNeverHearAfterRemovalAndLoseNothing) {
    ASSERT_TRUE(CRtThreadManager::Instance());
    const long kRounds = StressCount(10000);
    const int kHandlers = 6;
    const uint32_t seed = static_cast<uint32_t>(std::random_device{}());
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 rng(seed);
    OwnerThread owner(Owner::Reactor);
    ASSERT_TRUE(owner.Get());
    IRtReactor* reactor = owner.Get()->GetReactor();
    auto onReactor = [&](std::function<int()> aFn) {
        return reactor->SendEvent(new FnEvent(std::move(aFn)));
    };
    const int listener = Listener();

    long reopened = 0, sameNumber = 0, handlers = 0;
    for (long round = 0; round < kRounds; ++round) {
        ChurnRound churn(reactor, &rng);
        struct Peer {
            Role role;
            int local, remote;
            long bytes;
        };
        std::vector<Peer> peers;
        for (int i = 0; i < kHandlers; ++i) {
            const Role role = static_cast<Role>(rng() % static_cast<int>(Role::kCount));
            int pair[2];
            ASSERT_TRUE(MakePair(role == Role::PeerResets, listener, pair)) << "errno " << errno;
            const long bytes = role == Role::PeerResets ? 0 : 1 + long(rng() % 4096);
            peers.push_back({role, pair[0], pair[1], bytes});
        }
        ASSERT_EQ(onReactor([&] {
                      int rv = RT_OK;
                      for (const Peer& p : peers) {
                          rv = std::max(rv, churn.Add(p.role, p.local, p.bytes));
                      }
                      return rv;
                  }),
                  RT_OK);

        // All peers act at once, so their readiness is dispatched together.
        const std::vector<char> data(4096, 'x');
        for (Peer& p : peers) {
            // A handler that acted already may have closed this peer's end.
            if (p.bytes > 0 && ::send(p.remote, data.data(), size_t(p.bytes), MSG_NOSIGNAL) < 0) {
                ASSERT_TRUE(errno == EPIPE || errno == ECONNRESET) << "errno " << errno;
            }
            if (p.role == Role::PeerResets) {
                linger hard{1, 0};
                ::setsockopt(p.remote, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
            }
            if (p.role == Role::PeerCloses || p.role == Role::PeerResets) {
                ::close(p.remote);
                p.remote = -1;
            }
        }
        ASSERT_TRUE(WaitUntil([&] { return onReactor([&] { return int(churn.Complete()); }) == 1; },
                              std::chrono::seconds(60)))
            << "round " << round << ": a live handler missed its input or close";
        onReactor([&] { return churn.End(), RT_OK; });
        for (Peer& p : peers) {
            if (p.remote >= 0) {
                ::close(p.remote);
            }
        }
        reopened += churn.reopened;
        sameNumber += churn.sameNumber;
        handlers += kHandlers + churn.reopened;
        ASSERT_EQ(churn.violations, 0) << "round " << round;
    }
    ::close(listener);
    Figure("churn_rounds", kRounds);
    Figure("churn_handlers", handlers);
    Figure("descriptors_reopened", reopened);
    Figure("reopened_with_the_same_number", sameNumber);
}
