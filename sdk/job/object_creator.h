#pragma once

/// Makes objects of one kind that the caller gives back to the same creator.
template <typename T>
class Object_Creator_T {
public:
  virtual ~Object_Creator_T() = default;
  virtual int init(int /*argc*/, char** /*argv*/) { return 0; }
  virtual int fini() { return 0; }
  /// A new object, or null with `errno` ENOMEM.
  virtual T* create() = 0;
  /// Deletes an object of `create`; null is ignored.
  virtual void destroy(T* object) = 0;
};
