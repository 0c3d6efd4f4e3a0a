#pragma once

#include "obs/agent/job/json_state.h"
#include "obs/agent/job_frame/object_creator_impl_t.h"
#include "sdk/json/yajl_handler.h"

#include <cerrno>
#include <memory>
#include <new>
#include <vector>

/// What the parsers of the four definition objects have in common: they keep one state per open JSON container, the
/// definition object itself being level 1, and fill a record that is made with them.
///
/// BASE is the platform's record class, RECORD the resource's. A derived class looks keys up and stores values. The
/// first refused event ends the parse; what was stored until then stays. One parser reads one definition. One thread
/// at a time.
template <typename BASE, typename RECORD>
class Definition_Parser_T : public YAJL_Parser<BASE> {
public:
  typedef typename YAJL_Parser<BASE>::Result Result;

  /// 0, or why the first event that was refused was so (JSON_Parse_Error).
  int err() const { return err_; }

  bool handle_start_map_i() override { return push(true); }
  bool handle_end_map_i() override { return pop(); }
  bool handle_start_array_i() override { return push(false); }
  bool handle_end_array_i() override { return pop(); }
  Result result() override { return result_; }

protected:
  /// Where memory for the record is short, `errno` is ENOMEM and the record missing: values are then ignored, at any
  /// level.
  Definition_Parser_T() {
    try {
      result_ = adopt<Result>(std::make_unique<RECORD>());
    } catch (const std::bad_alloc&) {
      errno = ENOMEM;
    }
  }

  size_t level() const { return states_.size(); }
  /// The innermost open container; there has to be one.
  JSON_State& top() { return states_.back(); }
  /// Null when memory was short.
  RECORD* record() const { return static_cast<RECORD*>(result_.get()); }
  /// What `step` answers. Where memory is short for what it stores the parse ends, with `errno` ENOMEM; nothing is
  /// thrown.
  template <typename STEP>
  static bool without_throwing(STEP step) {
    try {
      return step();
    } catch (const std::bad_alloc&) {
      errno = ENOMEM;
      return false;
    }
  }
  bool push(bool object) {
    return without_throwing([&] {
      states_.push_back(JSON_State{object, 0, 0});
      return true;
    });
  }
  bool refuse(JSON_Parse_Error error) {
    if (err_ == 0)
      err_ = error;
    return false;
  }
  bool pop() {
    if (states_.empty())
      return refuse(JSON_ERROR_NOT_OPEN);
    states_.pop_back();
    return true;
  }
  /// Makes `bit` the innermost container's present key.
  bool set_key(ACE_UINT64 bit) {
    if (states_.empty())
      return refuse(JSON_ERROR_NOT_OPEN);
    top().key = bit;
    return true;
  }
  /// Notes that the present key of the innermost container has its value.
  bool accept() {
    top().masks |= top().key;
    return true;
  }

  int err_ = 0;
  Result result_;
  std::vector<JSON_State> states_; ///< outermost first
};
