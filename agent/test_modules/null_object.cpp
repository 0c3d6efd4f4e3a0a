// A module whose factories are all there but make nothing.
#define FACTORY(name)                                                                                                  \
  extern "C" void* name(void (**)(void*)) {                                                                            \
    return nullptr;                                                                                                    \
  }

FACTORY(_make_OBS_Instance_Handler)
FACTORY(_make_OBS_Job_Creator)
FACTORY(_make_OBS_Backup_Job_Options_Parser_Creator)
FACTORY(_make_OBS_Backup_Job_Source_Parser_Creator)
FACTORY(_make_OBS_Restore_Job_Options_Parser_Creator)
FACTORY(_make_OBS_Restore_Job_Source_Parser_Creator)
FACTORY(_make_JSON_RPC_OBS_List_Handler)
FACTORY(_make_JSON_RPC_OBS_Test_Handler)
