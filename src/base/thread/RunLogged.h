#pragma once
// Runs a task and keeps whatever it throws from ending the thread that runs it: the exception is
// logged at error level as "<who> terminated with an exception: <what>" (or "... with an unknown
// exception") and swallowed. For the loops of pools, groups and dispatchers.

#include "util/Function.h"

namespace qor::thread {

// Returns true when fn returned normally.
bool runLogged(const Function0<void>& fn, const char* who);

}  // namespace qor::thread
