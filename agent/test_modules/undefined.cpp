// A module that needs a symbol which nobody has.
extern "C" int symbol_that_nobody_has();
extern "C" void* _make_OBS_Instance_Handler(void (**)(void*)) {
  static int value = symbol_that_nobody_has();
  return &value;
}
