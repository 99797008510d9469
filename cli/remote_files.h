// Files on the device as the commands use them: small uploads from memory,
// whole downloads into a descriptor, quiet removal.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "cli/device.h"

// The text form (32 upper-case digits) of a signature, and the signature of
// `bytes` in that form.
std::string md5_text(const std::uint8_t (&digest)[16]);
std::string md5_text(std::string_view bytes);

// Stores `content` at `remote` with putFile.
bool upload_text(device& dev, const std::string& remote, std::string_view content);

// Streams `remote` into `fd` with getFile. On a Fail reply, `fail_reason`
// (when given) receives the reason and nothing is reported.
bool fetch_to_fd(device& dev, const std::string& remote, int fd,
                 transfer_progress* progress = nullptr, std::string* fail_reason = nullptr);

// remFile, with any refusal ignored; it still goes out after an interrupt.
void remove_quietly(device& dev, const std::string& remote);
