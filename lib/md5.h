// MD5 file signatures (RFC 1321).
//
// A signature is the 16-byte MD5 digest of a file, in the byte order in which
// the algorithm outputs it. Its text form is 32 hexadecimal digits, two per
// byte, first byte first; written in upper case, read in either case.
//
// The digest routines allocate nothing and keep no hidden state: a digest in
// progress lives entirely in its md5_context.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <span>

// The running state of one digest: the four chaining words, the number of
// message bits seen so far (modulo 2^64, low word first) and the bytes of an
// incomplete 64-byte block.
struct md5_context {
  std::uint32_t state[4];
  std::uint32_t count[2];
  std::uint8_t buffer[64];
};

// The signature computed over the last file received by putFile.
extern std::uint8_t md5_signature[16];
// The signature the client announced for that file.
extern std::uint8_t last_md5_signature[16];
// The running digest of the file being received.
extern md5_context gMD5_context;

// Starts a new digest.
void MD5Init(md5_context* ctx);

// Adds `length` bytes at `data` to the digest. `data` may be null when
// `length` is 0.
void MD5Update(md5_context* ctx, const void* data, std::size_t length);

inline void MD5Update(md5_context* ctx, std::span<const std::uint8_t> data) {
  MD5Update(ctx, data.data(), data.size());
}

// Pads the message, writes the digest to `digest` and wipes the context. The
// context must be started again with MD5Init before it is used once more.
void MD5Final(std::uint8_t (&digest)[16], md5_context* ctx);

// Mixes one 64-byte block into the four chaining words.
void MD5Transform(std::uint32_t (&state)[4], std::span<const std::uint8_t, 64> block);

// Computes the signature of the file at `path`. Returns 0 with the signature
// in `digest`, or 1 when the file cannot be opened (`digest` is untouched).
// A read error ends the file as its end would.
int get_file_md5(const char* path, std::uint8_t (&digest)[16]);

// The text form of `sig`: 32 upper-case digits and a NUL.
void md5_sig_text(const std::uint8_t (&sig)[16], char (&text)[33]);

// Writes the text form of `sig` (upper case) and a newline on `stream`.
void print_md5_sig(std::FILE* stream, const std::uint8_t (&sig)[16]);

// Reads the text form at the start of `text` into `sig`. Returns 0 when the
// first 32 characters are hexadecimal digits, 1 otherwise. `sig` is zeroed
// first and filled pair by pair, so on failure it keeps the bytes converted
// before the bad pair. Characters after the 32nd are not looked at.
int text2md5sig(const char* text, std::uint8_t (&sig)[16]);

// Returns 0 when the two signatures are equal, 1 when they differ.
int md5_check_signature(const std::uint8_t (&a)[16], const std::uint8_t (&b)[16]);
