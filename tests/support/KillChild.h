#pragma once
// Runs a body in a child process and kills it with SIGKILL after a delay: crash tests call it
// many times with random delays and then look at what the child left on disk.

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

namespace qor::test {

// Forks, runs body() in the child (which must not return), waits `delay`, kills the child and
// reaps it. Returns the wait status, or -1 when fork or waitpid failed.
template <class Body>
int runAndKill(Body&& body, std::chrono::microseconds delay) {
    const pid_t child = ::fork();
    if (child < 0) return -1;
    if (child == 0) {
        body();
        ::_exit(127);
    }
    std::this_thread::sleep_for(delay);
    ::kill(child, SIGKILL);
    int status = 0;
    return ::waitpid(child, &status, 0) == child ? status : -1;
}

}  // namespace qor::test
