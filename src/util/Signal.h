#pragma once
// Multicast callbacks. Signal0, Signal1<A>, Signal2<A, B> hold slots added by connect(), which
// returns a Connection that can disconnect the slot again.
//
// emit() copies the slot list first (up to 16 on the stack, more on the heap) and calls the slots
// with no lock held, so a slot may connect or disconnect any slot, itself included, and a slot
// disconnected during an emit is not called by that emit if it has not been reached yet.
// Thread contract: connect, disconnect and emit may run on any threads at once; one mutex per signal
// guards its slot list. A slot that is already running when another thread disconnects it finishes.

#include <array>
#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

namespace qor {

namespace detail {

struct SlotBase {
    std::atomic<bool> connected{true};
    virtual ~SlotBase() = default;
};

// The part of a signal that a Connection can reach after the signal has gone.
struct SignalCore {
    std::mutex mutex;                               // guards slots
    std::vector<std::shared_ptr<SlotBase>> slots;  // in order of connection

    void remove(const std::shared_ptr<SlotBase>& slot) {
        std::lock_guard<std::mutex> lock(mutex);
        slot->connected = false;
        std::erase(slots, slot);
    }
};

}  // namespace detail

// A link from a signal to one slot. Copyable; all copies name the same link. Outliving the signal is
// fine: disconnect() then does nothing.
class Connection {
public:
    Connection() = default;
    Connection(std::weak_ptr<detail::SignalCore> core, std::weak_ptr<detail::SlotBase> slot)
        : _core(std::move(core)), _slot(std::move(slot)) {}

    void disconnect() {
        auto slot = _slot.lock();
        if (!slot) return;
        if (auto core = _core.lock())
            core->remove(slot);
        else
            slot->connected = false;
    }
    bool connected() const {
        auto slot = _slot.lock();
        return slot && slot->connected && !_core.expired();
    }

private:
    std::weak_ptr<detail::SignalCore> _core;
    std::weak_ptr<detail::SlotBase> _slot;
};

// Disconnects its connection when it goes out of scope.
class ScopedConnection {
public:
    ScopedConnection() = default;
    ScopedConnection(Connection c) : _c(std::move(c)) {}
    ~ScopedConnection() { _c.disconnect(); }
    ScopedConnection(ScopedConnection&& o) noexcept : _c(std::exchange(o._c, Connection())) {}
    ScopedConnection& operator=(ScopedConnection&& o) noexcept {
        if (this != &o) {
            _c.disconnect();
            _c = std::exchange(o._c, Connection());
        }
        return *this;
    }
    ScopedConnection(const ScopedConnection&) = delete;
    ScopedConnection& operator=(const ScopedConnection&) = delete;
    void disconnect() { _c.disconnect(); }
    bool connected() const { return _c.connected(); }

private:
    Connection _c;
};

template <class... Args>
class Signal {
public:
    using Slot = std::function<void(Args...)>;

    Signal() : _core(std::make_shared<detail::SignalCore>()) {}
    Signal(const Signal&) = delete;
    Signal& operator=(const Signal&) = delete;
    ~Signal() { disconnectAll(); }

    Connection connect(Slot slot) {
        auto s = std::make_shared<SlotImpl>(std::move(slot));
        std::lock_guard<std::mutex> lock(_core->mutex);
        _core->slots.push_back(s);
        return Connection(_core, s);
    }

    // Disconnects every slot. The slots are dropped after the lock is released, since dropping a
    // slot may run destructors of its bound state that disconnect other slots of this signal.
    void disconnectAll() {
        std::vector<std::shared_ptr<detail::SlotBase>> dropped;
        {
            std::lock_guard<std::mutex> lock(_core->mutex);
            for (auto& s : _core->slots) s->connected = false;
            dropped.swap(_core->slots);
        }
    }

    size_t slotCount() const {
        std::lock_guard<std::mutex> lock(_core->mutex);
        return _core->slots.size();
    }
    bool empty() const { return slotCount() == 0; }

    // Calls every connected slot in order of connection, with no lock held.
    void emit(Args... args) const {
        constexpr size_t kOnStack = 16;
        std::array<std::shared_ptr<detail::SlotBase>, kOnStack> local;
        std::vector<std::shared_ptr<detail::SlotBase>> heap;
        size_t n;
        {
            std::lock_guard<std::mutex> lock(_core->mutex);
            n = _core->slots.size();
            if (n <= kOnStack)
                std::copy(_core->slots.begin(), _core->slots.end(), local.begin());
            else
                heap = _core->slots;
        }
        std::shared_ptr<detail::SlotBase>* slots = n <= kOnStack ? local.data() : heap.data();
        for (size_t i = 0; i < n; ++i) {
            auto* s = static_cast<SlotImpl*>(slots[i].get());
            if (s->connected.load(std::memory_order_acquire)) s->fn(args...);
        }
    }
    void operator()(Args... args) const { emit(args...); }

private:
    struct SlotImpl : detail::SlotBase {
        explicit SlotImpl(Slot f) : fn(std::move(f)) {}
        Slot fn;
    };

    std::shared_ptr<detail::SignalCore> _core;
};

using Signal0 = Signal<>;
template <class A1>
using Signal1 = Signal<A1>;
template <class A1, class A2>
using Signal2 = Signal<A1, A2>;

}  // namespace qor
