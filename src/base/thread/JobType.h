#pragma once
// Where a job runs, as a job's precondition() tells the job system. The numbers are part of the
// contract with the job classes: 1 trivial, 2 GL thread, 3 worker thread.

namespace qor::thread {

enum JobType : int {
    // Needs no thread of its own: runs at once on the thread that takes it from the ready queue.
    JtTrivial = 1,
    // Must run on the GL thread, inside JobDispatcher::processGLJobs().
    JtGLThread = 2,
    // Runs on one of the dispatcher's worker threads.
    JtWorker = 3,
};

// True for the three values above.
inline bool isValidJobType(int type) { return type >= JtTrivial && type <= JtWorker; }

// "trivial", "GL thread", "worker", or "invalid" for any other value. For logs.
const char* jobTypeName(JobType type);

}  // namespace qor::thread
