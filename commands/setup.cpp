#include "commands/setup.h"

#include "lib/bounded.h"

kolta_setup gSetup;

int init_kolta() {
  gSetup.LoadMethode = 1;
  bounded_copy(gSetup.lod_server_ip, "127.0.0.0");
  gSetup.lod_server_port = 10000;
  gSetup.exec_type = kExecRmd;
  return 0;
}
