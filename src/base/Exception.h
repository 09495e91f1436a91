#pragma once
// Failures of the system are exceptions derived from Exception through CloneableException<T>, so a
// failure caught on one thread can be cloned, carried to another thread and thrown there as its own
// type.

#include <exception>
#include <memory>
#include <string>

namespace qor {

class Exception : public std::exception {
public:
    Exception() = default;
    explicit Exception(std::string message) : _message(std::move(message)) {}

    const char* what() const noexcept override { return _message.c_str(); }
    const std::string& message() const { return _message; }

    // A copy of this exception with its most derived type.
    virtual std::unique_ptr<Exception> clone() const { return std::make_unique<Exception>(*this); }
    // Throws a copy with its most derived type.
    [[noreturn]] virtual void throwThis() const { throw *this; }

protected:
    std::string _message;
};

// CRTP base that gives Derived its clone and throwThis: class E : public CloneableException<E> {}.
// Base is the parent in the exception tree (Exception by default).
template <class Derived, class Base = Exception>
class CloneableException : public Base {
public:
    using Base::Base;

    std::unique_ptr<Exception> clone() const override {
        return std::make_unique<Derived>(static_cast<const Derived&>(*this));
    }
    [[noreturn]] void throwThis() const override { throw static_cast<const Derived&>(*this); }
};

// Holds one caught failure so another thread can throw it. Captures a qor::Exception by clone, a
// standard exception by its text, anything else as an unknown failure.
class CarriedException {
public:
    CarriedException() = default;

    // Call inside a catch block: stores the exception being handled.
    static CarriedException current();

    bool empty() const { return !_exception; }
    const Exception* get() const { return _exception.get(); }
    // Throws the carried exception; does nothing when empty.
    void rethrowIfAny() const {
        if (_exception) _exception->throwThis();
    }

private:
    std::shared_ptr<Exception> _exception;
};

}  // namespace qor
