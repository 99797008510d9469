#include "protocol/request.h"

#include "lib/bounded.h"

int svr_GetArgument(const vesk_request* request, const char* name, char (&dst)[kArgumentSize]) {
  bounded_copy(dst, GetNVPair_Value(&request->header, name));
  return dst[0] != '\0' ? 1 : 0;
}
