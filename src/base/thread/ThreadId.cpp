#include "base/thread/ThreadId.h"

#include <pthread.h>

#include <atomic>
#include <cstring>

namespace qor::thread {

ThreadId getThreadId() {
    static std::atomic<ThreadId> next{1};
    thread_local ThreadId id = next.fetch_add(1, std::memory_order_relaxed);
    return id;
}

void setThreadName(const char* name) {
    char buf[16];
    std::strncpy(buf, name, sizeof buf - 1);
    buf[sizeof buf - 1] = 0;
    pthread_setname_np(pthread_self(), buf);
}

}  // namespace qor::thread
