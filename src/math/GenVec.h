#pragma once
// GenVec<T, N>: a fixed vector of N components of T (N = 2, 3 or 4), with public components x, y
// and, where N is larger, z and w. A default-built vector is zero. Arithmetic is component-wise;
// == compares every component, and < is the lexicographic order (x first), a strict weak order so
// that std::set<GenVec<int, 2>> can name a set of tiles.
//
// Thread contract: a plain value; distinct objects may be used on any threads.

#include <cstddef>
#include <ostream>
#include <type_traits>

namespace qor::math {

namespace detail {

template <class T, int N>
struct GenVecStorage;

template <class T>
struct GenVecStorage<T, 2> {
    T x{}, y{};
};

template <class T>
struct GenVecStorage<T, 3> {
    T x{}, y{}, z{};
};

template <class T>
struct GenVecStorage<T, 4> {
    T x{}, y{}, z{}, w{};
};

}  // namespace detail

template <class T, int N>
struct GenVec : detail::GenVecStorage<T, N> {
    static_assert(N >= 2 && N <= 4, "GenVec has 2, 3 or 4 components");
    using value_type = T;
    static constexpr int dimension = N;

    constexpr GenVec() = default;
    constexpr GenVec(T x_, T y_)
        requires(N == 2)
    {
        this->x = x_;
        this->y = y_;
    }
    constexpr GenVec(T x_, T y_, T z_)
        requires(N == 3)
    {
        this->x = x_;
        this->y = y_;
        this->z = z_;
    }
    constexpr GenVec(T x_, T y_, T z_, T w_)
        requires(N == 4)
    {
        this->x = x_;
        this->y = y_;
        this->z = z_;
        this->w = w_;
    }
    // Converts each component with static_cast.
    template <class U>
        requires(!std::is_same_v<U, T>)
    constexpr explicit GenVec(const GenVec<U, N>& other) {
        for (int i = 0; i < N; ++i) (*this)[i] = static_cast<T>(other[i]);
    }

    constexpr T& operator[](int i) {
        if constexpr (N == 2) {
            return i == 0 ? this->x : this->y;
        } else if constexpr (N == 3) {
            return i == 0 ? this->x : i == 1 ? this->y : this->z;
        } else {
            return i == 0 ? this->x : i == 1 ? this->y : i == 2 ? this->z : this->w;
        }
    }
    constexpr const T& operator[](int i) const { return const_cast<GenVec&>(*this)[i]; }

    constexpr GenVec& operator+=(const GenVec& o) { return apply(o, [](T& a, T b) { a += b; }); }
    constexpr GenVec& operator-=(const GenVec& o) { return apply(o, [](T& a, T b) { a -= b; }); }
    constexpr GenVec& operator*=(const GenVec& o) { return apply(o, [](T& a, T b) { a *= b; }); }
    constexpr GenVec& operator/=(const GenVec& o) { return apply(o, [](T& a, T b) { a /= b; }); }
    constexpr GenVec& operator*=(T s) { return apply(GenVec::filled(s), [](T& a, T b) { a *= b; }); }
    constexpr GenVec& operator/=(T s) { return apply(GenVec::filled(s), [](T& a, T b) { a /= b; }); }

    friend constexpr GenVec operator+(GenVec a, const GenVec& b) { return a += b; }
    friend constexpr GenVec operator-(GenVec a, const GenVec& b) { return a -= b; }
    friend constexpr GenVec operator*(GenVec a, const GenVec& b) { return a *= b; }
    friend constexpr GenVec operator/(GenVec a, const GenVec& b) { return a /= b; }
    friend constexpr GenVec operator*(GenVec a, T s) { return a *= s; }
    friend constexpr GenVec operator*(T s, GenVec a) { return a *= s; }
    friend constexpr GenVec operator/(GenVec a, T s) { return a /= s; }
    friend constexpr GenVec operator-(GenVec a) {
        for (int i = 0; i < N; ++i) a[i] = -a[i];
        return a;
    }

    friend constexpr bool operator==(const GenVec& a, const GenVec& b) {
        for (int i = 0; i < N; ++i)
            if (!(a[i] == b[i])) return false;
        return true;
    }
    friend constexpr bool operator!=(const GenVec& a, const GenVec& b) { return !(a == b); }
    // Lexicographic: x first, then y, and so on.
    friend constexpr bool operator<(const GenVec& a, const GenVec& b) {
        for (int i = 0; i < N; ++i) {
            if (a[i] < b[i]) return true;
            if (b[i] < a[i]) return false;
        }
        return false;
    }
    friend constexpr bool operator>(const GenVec& a, const GenVec& b) { return b < a; }
    friend constexpr bool operator<=(const GenVec& a, const GenVec& b) { return !(b < a); }
    friend constexpr bool operator>=(const GenVec& a, const GenVec& b) { return !(a < b); }

    // Writes "(x, y)", "(x, y, z)" or "(x, y, z, w)".
    friend std::ostream& operator<<(std::ostream& out, const GenVec& v) {
        out << '(';
        for (int i = 0; i < N; ++i) out << (i ? ", " : "") << v[i];
        return out << ')';
    }

    // A vector with every component equal to s.
    static constexpr GenVec filled(T s) {
        GenVec v;
        for (int i = 0; i < N; ++i) v[i] = s;
        return v;
    }

private:
    template <class Op>
    constexpr GenVec& apply(const GenVec& o, Op op) {
        for (int i = 0; i < N; ++i) op((*this)[i], o[i]);
        return *this;
    }
};

using Vec2i = GenVec<int, 2>;
using Vec2f = GenVec<float, 2>;
using Vec3f = GenVec<float, 3>;
using Vec4f = GenVec<float, 4>;
using Vec2d = GenVec<double, 2>;
using Vec3d = GenVec<double, 3>;

}  // namespace qor::math

namespace qor::imaging {
using math::GenVec;
using math::Vec2d;
using math::Vec2f;
using math::Vec2i;
using math::Vec3d;
using math::Vec3f;
using math::Vec4f;
}  // namespace qor::imaging
