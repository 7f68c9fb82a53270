// A reference to something callable, for a parameter that is called before the function returns: unlike
// std::function it copies nothing and needs no memory, which counts when it is made for each record of a
// batch.
#pragma once

#include <memory>
#include <type_traits>
#include <utility>

namespace lqregistry {

template <class Signature>
class FunctionRef;

template <class Result, class... Arguments>
class FunctionRef<Result(Arguments...)> {
 public:
  template <class Callable>
  requires(!std::is_same_v<std::remove_cvref_t<Callable>, FunctionRef>) FunctionRef(
      const Callable& callable)  // NOLINT(google-explicit-constructor): as a function would be passed
      : callable_(std::addressof(callable)), call_([](const void* object, Arguments... arguments) -> Result {
          return (*static_cast<const Callable*>(object))(std::forward<Arguments>(arguments)...);
        }) {}

  Result operator()(Arguments... arguments) const {
    return call_(callable_, std::forward<Arguments>(arguments)...);
  }

 private:
  const void* callable_;
  Result (*call_)(const void*, Arguments...);
};

}  // namespace lqregistry
