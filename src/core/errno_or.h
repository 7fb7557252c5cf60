// The result of a POSIX-layer call that makes something: the value, or the errno that stopped it.
// The error is carried in the result, never left in the global errno (which the next call may
// overwrite, and which is per thread). docs/coding-guidelines.md says when to use it.
#pragma once

#include <cassert>
#include <utility>
#include <variant>

namespace tervain {

// An errno value, to construct a failed ErrnoOr: `return Errno{errno};`. Never 0.
struct Errno {
  int value;
};

template <typename T>
class ErrnoOr {
 public:
  ErrnoOr(T value) : state(std::move(value)) {}  // NOLINT(google-explicit-constructor)
  ErrnoOr(Errno error) : state(error) {          // NOLINT(google-explicit-constructor)
    assert(error.value != 0);
  }

  bool ok() const { return std::holds_alternative<T>(state); }
  explicit operator bool() const { return ok(); }

  // The errno of a failure; 0 when there is a value.
  int error() const { return ok() ? 0 : std::get<Errno>(state).value; }

  // The value; only when ok().
  T& operator*() & { return std::get<T>(state); }
  const T& operator*() const& { return std::get<T>(state); }
  T&& operator*() && { return std::get<T>(std::move(state)); }
  T* operator->() { return &std::get<T>(state); }
  const T* operator->() const { return &std::get<T>(state); }

 private:
  std::variant<T, Errno> state;
};

}  // namespace tervain
