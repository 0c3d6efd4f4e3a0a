#pragma once

#include "obs/agent/job_frame/object_creator_impl_t.h"

/// Deletes an object that a factory made; null is ignored.
typedef void (*Gobbler)(void*);

/// The attributes of a function that the host finds by its name in the module.
#define OBS_EXPORT extern "C" __attribute__((visibility("default")))

/// Defines the factory `_make_NAME` with its disposer. The object is a CLASS and reaches the host as a BASE. The
/// factory stores the disposer in the caller's slot, if there is one, before it makes the object; null with `errno`
/// ENOMEM when memory is short. `before_delete(BASE*)` is called by the disposer first.
#define OBS_DEFINE_FACTORY_I(NAME, BASE, CLASS, before_delete)                                                         \
  static void _gobble_##NAME(void* object) {                                                                           \
    if (BASE* const p = static_cast<BASE*>(object)) {                                                                  \
      before_delete(p);                                                                                                \
      delete p;                                                                                                        \
    }                                                                                                                  \
  }                                                                                                                    \
  OBS_EXPORT BASE* _make_##NAME(Gobbler* gobbler);                                                                     \
  OBS_EXPORT BASE* _make_##NAME(Gobbler* gobbler) {                                                                    \
    if (gobbler)                                                                                                       \
      *gobbler = _gobble_##NAME;                                                                                       \
    return make_without_throwing<CLASS>();                                                                             \
  }

#define OBS_NOTHING_BEFORE_DELETE(p) static_cast<void>(p)
#define OBS_FINI_BEFORE_DELETE(p) (p)->fini()

#define OBS_DEFINE_FACTORY(NAME, BASE, CLASS) OBS_DEFINE_FACTORY_I(NAME, BASE, CLASS, OBS_NOTHING_BEFORE_DELETE)

/// The factory of the creator of one definition parser. The disposer calls `fini` first.
#define OBS_DEFINE_PARSER_CREATOR_FACTORY(PARSER)                                                                      \
  typedef Object_Creator_T<YAJL_Handler> PARSER##_Creator_Base;                                                        \
  typedef Object_Creator_Impl_T<PARSER##_Creator_Base, PARSER> PARSER##_Creator;                                       \
  OBS_DEFINE_FACTORY_I(PARSER##_Creator, PARSER##_Creator_Base, PARSER##_Creator, OBS_FINI_BEFORE_DELETE)
