// A non-owning reference to a callable, so that the runner can take a procedure's parameter and
// local lists without allocating.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace tabforge::tracing {

template <class Signature>
class FunctionRef;

template <class R, class... Args>
class FunctionRef<R(Args...)> {
 public:
  template <class F, class = std::enable_if_t<!std::is_same_v<std::decay_t<F>, FunctionRef> &&
                                              std::is_invocable_r_v<R, F&, Args...>>>
  FunctionRef(F&& f) noexcept  // NOLINT(google-explicit-constructor)
      : callable_(const_cast<void*>(static_cast<const void*>(std::addressof(f)))),
        call_([](void* callable, Args... args) -> R {
          return (*static_cast<std::remove_reference_t<F>*>(callable))(std::forward<Args>(args)...);
        }) {}

  R operator()(Args... args) const { return call_(callable_, std::forward<Args>(args)...); }

 private:
  void* callable_;
  R (*call_)(void*, Args...);
};

}  // namespace tabforge::tracing
