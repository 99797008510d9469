#include "lib/md5.h"

#include <array>
#include <bit>
#include <cctype>
#include <cstring>
#include <utility>

std::uint8_t md5_signature[16];
std::uint8_t last_md5_signature[16];
md5_context gMD5_context;

namespace {

// The additive constants of the 64 steps: the integer part of
// 2^32 * |sin(i)| for i = 1 .. 64.
constexpr std::array<std::uint32_t, 64> kSine = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee,
    0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be,
    0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa,
    0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed,
    0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c,
    0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05,
    0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039,
    0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1,
    0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

// Rotation amounts, four per round, repeating within the round.
constexpr int kShift[4][4] = {
    {7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

// Which message word step i reads.
constexpr int word_index(int i) {
  switch (i / 16) {
    case 0: return i;
    case 1: return (1 + 5 * i) % 16;
    case 2: return (5 + 3 * i) % 16;
    default: return (7 * i) % 16;
  }
}

// The four auxiliary functions, in forms that need one operation less than
// their definitions but give the same bits.
constexpr std::uint32_t aux(int round, std::uint32_t x, std::uint32_t y, std::uint32_t z) {
  switch (round) {
    case 0: return z ^ (x & (y ^ z));   // (x & y) | (~x & z)
    case 1: return y ^ (z & (x ^ y));   // (x & z) | (y & ~z)
    case 2: return x ^ y ^ z;
    default: return y ^ (x | ~z);
  }
}

constexpr std::uint8_t kPadding[64] = {0x80};

inline std::uint32_t load_le32(const std::uint8_t* p) {
  std::uint32_t v;
  std::memcpy(&v, p, 4);
  if constexpr (std::endian::native == std::endian::big) v = __builtin_bswap32(v);
  return v;
}

inline void store_le32(std::uint8_t* p, std::uint32_t v) {
  if constexpr (std::endian::native == std::endian::big) v = __builtin_bswap32(v);
  std::memcpy(p, &v, 4);
}

// Step I: a = b + ((a + F(b, c, d) + X[k] + T[I]) <<< s), with the roles of
// a, b, c, d turning one place to the right at every step. All indices are
// constants, so the words stay in registers.
template <int I>
[[gnu::always_inline]] inline void step(std::uint32_t (&v)[4], const std::uint32_t (&x)[16]) {
  constexpr int r = I % 4;
  std::uint32_t& a = v[(4 - r) % 4];
  const std::uint32_t b = v[(5 - r) % 4];
  const std::uint32_t c = v[(6 - r) % 4];
  const std::uint32_t d = v[(7 - r) % 4];
  a += aux(I / 16, b, c, d) + x[word_index(I)] + kSine[I];
  a = std::rotl(a, kShift[I / 16][r]) + b;
}

template <int... I>
[[gnu::always_inline]] inline void all_steps(std::uint32_t (&v)[4], const std::uint32_t (&x)[16],
                                             std::integer_sequence<int, I...>) {
  (step<I>(v, x), ...);
}

// Mixes `blocks` consecutive 64-byte blocks at `p` into `state`.
void transform_blocks(std::uint32_t (&state)[4], const std::uint8_t* p, std::size_t blocks) {
  std::uint32_t v[4] = {state[0], state[1], state[2], state[3]};
  for (; blocks != 0; --blocks, p += 64) {
    std::uint32_t x[16];
    for (int i = 0; i < 16; ++i) x[i] = load_le32(p + 4 * i);
    const std::uint32_t a = v[0], b = v[1], c = v[2], d = v[3];
    all_steps(v, x, std::make_integer_sequence<int, 64>{});
    v[0] += a;
    v[1] += b;
    v[2] += c;
    v[3] += d;
  }
  for (int i = 0; i < 4; ++i) state[i] = v[i];
}

int hex_value(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return c - 'A' + 10;
}

}  // namespace

void MD5Transform(std::uint32_t (&state)[4], std::span<const std::uint8_t, 64> block) {
  transform_blocks(state, block.data(), 1);
}

void MD5Init(md5_context* ctx) {
  ctx->state[0] = 0x67452301;
  ctx->state[1] = 0xefcdab89;
  ctx->state[2] = 0x98badcfe;
  ctx->state[3] = 0x10325476;
  ctx->count[0] = 0;
  ctx->count[1] = 0;
}

void MD5Update(md5_context* ctx, const void* data, std::size_t length) {
  const std::size_t used = (ctx->count[0] >> 3) & 63;

  // The bit count is kept modulo 2^64, whatever the length.
  std::uint64_t bits = (std::uint64_t{ctx->count[1]} << 32) | ctx->count[0];
  bits += std::uint64_t{length} << 3;
  ctx->count[0] = static_cast<std::uint32_t>(bits);
  ctx->count[1] = static_cast<std::uint32_t>(bits >> 32);

  if (length == 0) return;
  const auto* p = static_cast<const std::uint8_t*>(data);

  if (used != 0) {
    const std::size_t room = 64 - used;
    if (length < room) {
      std::memcpy(ctx->buffer + used, p, length);
      return;
    }
    std::memcpy(ctx->buffer + used, p, room);
    transform_blocks(ctx->state, ctx->buffer, 1);
    p += room;
    length -= room;
  }

  // Whole blocks are read where they lie; only the tail is copied.
  const std::size_t blocks = length / 64;
  transform_blocks(ctx->state, p, blocks);
  p += blocks * 64;
  length -= blocks * 64;
  if (length != 0) std::memcpy(ctx->buffer, p, length);
}

void MD5Final(std::uint8_t (&digest)[16], md5_context* ctx) {
  std::uint8_t bits[8];
  store_le32(bits, ctx->count[0]);
  store_le32(bits + 4, ctx->count[1]);

  // One 0x80 byte, then zeros up to 56 bytes past a block boundary, then the
  // bit count of the message before padding.
  const std::size_t used = (ctx->count[0] >> 3) & 63;
  const std::size_t pad = used < 56 ? 56 - used : 120 - used;
  MD5Update(ctx, kPadding, pad);
  MD5Update(ctx, bits, 8);

  for (int i = 0; i < 4; ++i) store_le32(digest + 4 * i, ctx->state[i]);
  std::memset(ctx, 0, sizeof *ctx);
}

int get_file_md5(const char* path, std::uint8_t (&digest)[16]) {
  md5_context ctx;
  MD5Init(&ctx);
  std::FILE* f = std::fopen(path, "rb");
  if (f == nullptr) return 1;
  // Larger reads than the nominal 512 bytes change nothing but the speed.
  std::uint8_t block[16384];
  std::size_t n;
  while ((n = std::fread(block, 1, sizeof block, f)) != 0) MD5Update(&ctx, block, n);
  MD5Final(digest, &ctx);
  std::fclose(f);
  return 0;
}

void md5_sig_text(const std::uint8_t (&sig)[16], char (&text)[33]) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  for (int i = 0; i < 16; ++i) {
    text[2 * i] = kDigits[sig[i] >> 4];
    text[2 * i + 1] = kDigits[sig[i] & 0xF];
  }
  text[32] = '\0';
}

void print_md5_sig(std::FILE* stream, const std::uint8_t (&sig)[16]) {
  char text[33];
  md5_sig_text(sig, text);
  std::fprintf(stream, "%s\n", text);
}

int text2md5sig(const char* text, std::uint8_t (&sig)[16]) {
  std::memset(sig, 0, sizeof sig);
  if (text == nullptr) return 1;
  for (int i = 0; i < 16; ++i) {
    // The check of the first digit stops at a terminating NUL before the
    // second one is read.
    const auto hi = static_cast<unsigned char>(text[2 * i]);
    if (!std::isxdigit(hi)) return 1;
    const auto lo = static_cast<unsigned char>(text[2 * i + 1]);
    if (!std::isxdigit(lo)) return 1;
    sig[i] = static_cast<std::uint8_t>(hex_value(hi) << 4 | hex_value(lo));
  }
  return 0;
}

int md5_check_signature(const std::uint8_t (&a)[16], const std::uint8_t (&b)[16]) {
  return std::memcmp(a, b, 16) == 0 ? 0 : 1;
}
