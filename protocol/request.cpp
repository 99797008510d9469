#include "protocol/request.h"

#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "lib/bounded.h"

int svr_GetArgument(const vesk_request* request, const char* name, char (&dst)[kArgumentSize]) {
  bounded_copy(dst, GetNVPair_Value(&request->header, name));
  return dst[0] != '\0' ? 1 : 0;
}

int reply_fail(resp_obj* resp, const char* reason) {
  resp->type = kReplyFail;
  bounded_copy(std::span(resp->text, kReplyTextBound), reason);
  return 1;
}

bool reply_fail_format(resp_obj* resp, const char* format, ...) {
  resp->type = kReplyFail;
  va_list ap;
  va_start(ap, format);
  int n = std::vsnprintf(resp->text, kReplyTextBound, format, ap);
  va_end(ap);
  return n >= 0 && n < kReplyTextBound;
}

void reply_text(resp_obj* resp, const char* text) {
  resp->type = kReplyData;
  bounded_copy(resp->content_type, "text/plain");
  resp->data.ptr = text;
  resp->data.size = static_cast<std::int32_t>(std::strlen(text));
}
