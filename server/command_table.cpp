#include "server/command_table.h"

#include "server/dispatcher.h"

const command_entry cmd_table[kCommandCount + 1] = {
    {"test", nullptr},
    {"server_setup", nullptr},
    {"server_reset", nullptr},
    {"reboot", nullptr},
    {"shutdown", nullptr},
    {"system", nullptr},
    {"system_getDetails", nullptr},
    {"execute", nullptr},
    {"execute_getDetails", nullptr},
    {"exec_exclusive_prepare", nullptr},
    {"exec_exclusive", nullptr},
    {"exec_exclusive_getDetails", nullptr},
    {"process_start", nullptr},
    {"process_stop", nullptr},
    {"process_getState", nullptr},
    {"process_getDetails", nullptr},
    {"version", nullptr},
    {"getCap", nullptr},
    {"getFile", nullptr},
    {"putFile", nullptr},
    {"remFile", nullptr},
    {"exitapp", nullptr},
    {"help", help_fn},
    {nullptr, nullptr},
};
