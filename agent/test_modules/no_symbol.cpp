// A module that lacks every factory but one.
extern "C" void* _make_OBS_Instance_Handler(void (**)(void*)) {
  return nullptr;
}
