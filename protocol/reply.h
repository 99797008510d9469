// The three reply forms: Success, Fail with its reason, Data with its length
// and content type.
#pragma once

#include <cstddef>
#include <span>

#include "protocol/request.h"

inline constexpr std::size_t kReplyHeaderSize = 2048;
inline constexpr char kReplySuccessLine[] = "Reply: Success";

// Formats the reply header that `resp.type` selects into `out`. Returns its
// length; 0 for a type other than Fail, Success or Data (nothing is sent).
std::size_t format_reply_header(const resp_obj& resp, std::span<char, kReplyHeaderSize> out);
