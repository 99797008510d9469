#include "server/command_table.h"

#include "commands/info.h"
#include "procman/process_commands.h"
#include "server/dispatcher.h"

const command_entry cmd_table[kCommandCount + 1] = {
    {"test", test_fn},
    {"server_setup", nullptr},
    {"server_reset", nullptr},
    {"reboot", nullptr},
    {"shutdown", nullptr},
    {"system", nullptr},
    {"system_getDetails", nullptr},
    {"execute", nullptr},
    {"execute_getDetails", nullptr},
    {"exec_exclusive_prepare", exec_exclusive_prepare_fn},
    {"exec_exclusive", exec_exclusive_fn},
    {"exec_exclusive_getDetails", exec_exclusive_getDetails_fn},
    {"process_start", process_start_fn},
    {"process_stop", process_stop_fn},
    {"process_getState", process_getState_fn},
    {"process_getDetails", process_getDetails_fn},
    {"version", version_fn},
    {"getCap", getCap_fn},
    {"getFile", nullptr},
    {"putFile", nullptr},
    {"remFile", nullptr},
    {"exitapp", nullptr},
    {"help", help_fn},
    {nullptr, nullptr},
};
