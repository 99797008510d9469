#include "protocol/reply.h"

#include "lib/bounded.h"

namespace {
constexpr char kCrLf[] = "\r\n";
}

std::size_t format_reply_header(const resp_obj& resp, std::span<char, kReplyHeaderSize> out) {
  out[0] = '\0';
  switch (resp.type) {
    case kReplySuccess:
      bounded_copy(out, kReplySuccessLine);
      bounded_append(out, "\r\n\r\n");
      break;
    case kReplyFail: {
      char text[kReplyTextSize];
      bounded_copy(text, std::string_view(resp.text, bounded_length(resp.text)));
      bounded_format(out, "Reply: Fail%sReason: %s", kCrLf, text);
      bounded_append(out, "\r\n\r\n");
      break;
    }
    case kReplyData: {
      char content_type[kContentTypeSize];
      bounded_copy(content_type,
                   std::string_view(resp.content_type, bounded_length(resp.content_type)));
      bounded_format(out, "Reply: Data%sContent-length: %lld%sContent-Type: %s%s", kCrLf,
                     static_cast<long long>(resp.data.size), kCrLf, content_type, kCrLf);
      bounded_append(out, "\r\n");
      break;
    }
    default:
      return 0;
  }
  return bounded_length(out);
}
