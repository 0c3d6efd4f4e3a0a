#pragma once

#include <cerrno>
#include <memory>
#include <new>

/// A new T, or null with `errno` ENOMEM, also when the constructor itself runs short.
template <typename T, typename... ARGS>
T* make_without_throwing(ARGS&&... args) noexcept {
  try {
    return new T(static_cast<ARGS&&>(args)...);
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return nullptr;
  }
}

/// Hands `object` over to a reference-counted pointer. The pointer needs memory of its own: where that is short,
/// std::bad_alloc is thrown and the object deleted.
template <typename POINTER, typename T>
POINTER adopt(std::unique_ptr<T> object) {
  POINTER pointer(object.get());
  object.release();
  return pointer;
}

/// An empty pointer that is there already: even a new one would need memory.
template <typename POINTER>
inline const POINTER no_object;

/// A new T in a reference-counted pointer, or an empty one with `errno` ENOMEM when memory is short for either of them.
template <typename POINTER, typename T, typename... ARGS>
POINTER make_counted(ARGS&&... args) noexcept {
  try {
    return adopt<POINTER>(std::make_unique<T>(static_cast<ARGS&&>(args)...));
  } catch (const std::bad_alloc&) {
    errno = ENOMEM;
    return no_object<POINTER>;
  }
}

/// Makes a PRODUCT whenever the host asks BASE, an Object_Creator_T, for an object. Keeps no state; any thread.
template <typename BASE, typename PRODUCT>
class Object_Creator_Impl_T;

template <template <typename> class CREATOR, typename T, typename PRODUCT>
class Object_Creator_Impl_T<CREATOR<T>, PRODUCT> : public CREATOR<T> {
public:
  T* create() override { return make_without_throwing<PRODUCT>(); }
  void destroy(T* object) override { delete object; }
};
