#include "server/command_table.h"

#include "commands/execute.h"
#include "commands/files.h"
#include "commands/info.h"
#include "commands/power.h"
#include "commands/settings.h"
#include "commands/shell.h"
#include "procman/process_commands.h"
#include "server/dispatcher.h"

const command_entry cmd_table[kCommandCount + 1] = {
    {"test", test_fn},
    {"server_setup", server_setup_fn},
    {"server_reset", server_reset_fn},
    {"reboot", reboot_fn},
    {"shutdown", shutdown_fn},
    {"system", system_fn},
    {"system_getDetails", system_getDetails_fn},
    {"execute", execute_fn},
    {"execute_getDetails", execute_getDetails_fn},
    {"exec_exclusive_prepare", exec_exclusive_prepare_fn},
    {"exec_exclusive", exec_exclusive_fn},
    {"exec_exclusive_getDetails", exec_exclusive_getDetails_fn},
    {"process_start", process_start_fn},
    {"process_stop", process_stop_fn},
    {"process_getState", process_getState_fn},
    {"process_getDetails", process_getDetails_fn},
    {"version", version_fn},
    {"getCap", getCap_fn},
    {"getFile", getFile_fn},
    {"putFile", putFile_fn},
    {"remFile", remFile_fn},
    {"exitapp", exitapp_fn},
    {"help", help_fn},
    {nullptr, nullptr},
};
