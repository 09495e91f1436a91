#pragma once
// Copyable function objects with bound state. Callers test an empty one before calling it.

#include <functional>

namespace qor {

template <class R>
using Function0 = std::function<R()>;
template <class R, class A1>
using Function1 = std::function<R(A1)>;
template <class R, class A1, class A2>
using Function2 = std::function<R(A1, A2)>;

}  // namespace qor
