#pragma once
// Gate: holds the threads that pass it until a test opens it; the test can wait until the first
// has arrived, to act while work is known to be inside a step.

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace qor::test {

class Gate {
public:
    // Arrives and waits until the gate is open, or until `leave` (checked every 2 ms) says true.
    void pass(const std::function<bool()>& leave = {}) {
        std::unique_lock<std::mutex> lock(_mutex);
        _entered = true;
        _cv.notify_all();
        if (!leave) {
            _cv.wait(lock, [&] { return _open; });
            return;
        }
        while (!_open && !leave()) _cv.wait_for(lock, std::chrono::milliseconds(2));
    }
    // Blocks until a thread has arrived.
    void waitEntered() {
        std::unique_lock<std::mutex> lock(_mutex);
        _cv.wait(lock, [&] { return _entered; });
    }
    void open() {
        std::lock_guard<std::mutex> lock(_mutex);
        _open = true;
        _cv.notify_all();
    }

private:
    std::mutex _mutex;
    std::condition_variable _cv;
    bool _entered = false;
    bool _open = false;
};

}  // namespace qor::test
