// ZuMD5.cpp: a shortened MD5 compression, ten steps a round over ten words, as a hash of keys.
//
// RFC 1321 is the source of the round functions, shifts, sine constants and initial values; the order of the words is
// this library's own, and so is the last step of the second round, which works on c where the pattern would have d.
#include "kep/ZuMD5.h"

#include <cstring>
#include <utility>

namespace {

constexpr uint32_t kWordCount = 10;
constexpr uint32_t kWordSize = 4;
constexpr uint32_t kRoundCount = 4;
constexpr uint32_t kInitialState[4] = {0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476};
constexpr uint32_t kInitialSum = kInitialState[0] + kInitialState[1] + kInitialState[2] + kInitialState[3];

constexpr uint8_t kShift[kRoundCount][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

constexpr uint8_t kWord[kRoundCount][kWordCount] = {{0, 1, 2, 3, 4, 5, 6, 7, 8, 9},
                                                    {1, 4, 0, 5, 7, 2, 6, 8, 9, 3},
                                                    {5, 6, 2, 4, 7, 8, 1, 9, 0, 3},
                                                    {9, 1, 4, 5, 2, 3, 0, 6, 8, 7}};

constexpr uint32_t kSine[kRoundCount][kWordCount] = {{0xD76AA478, 0xE8C7B756, 0x242070DB, 0xC1BDCEEE, 0xF57C0FAF,
                                                      0x4787C62A, 0xA8304613, 0xFD469501, 0x698098D8, 0x8B44F7AF},
                                                     {0xF61E2562, 0xC040B340, 0x265E5A51, 0xE9B6C7AA, 0xD62F105D,
                                                      0x02441453, 0xD8A1E681, 0xE7D3FBC8, 0x21E1CDE6, 0xC33707D6},
                                                     {0xFFFA3942, 0x8771F681, 0x6D9D6122, 0xFDE5380C, 0xA4BEEA44,
                                                      0x4BDECFA9, 0xF6BB4B60, 0xBEBFBC70, 0x289B7EC6, 0xEAA127FA},
                                                     {0xF4292244, 0x432AFF97, 0xAB9423A7, 0xFC93A039, 0x655B59C3,
                                                      0x8F0CCC92, 0xFFEFF47D, 0x85845DD1, 0x6FA87E4F, 0xFE2CE6E0}};

uint32_t rotateLeft(uint32_t value, uint32_t bits) { return value << bits | value >> (32 - bits); }

inline uint32_t mix(uint32_t round, uint32_t x, uint32_t y, uint32_t z) {
  switch (round) {
    case 0: return (x & y) | (~x & z);
    case 1: return (x & z) | (y & ~z);
    case 2: return x ^ y ^ z;
    default: return y ^ (x | ~z);
  }
}

// The steps of a round update a, d, c, b in turn, each from the three registers behind it.
inline void runStep(uint32_t round, uint32_t step, const uint32_t *words, uint32_t (&registers)[4]) {
  const bool departs = round == 1 && step == kWordCount - 1;
  const uint32_t position = departs ? 2 : step % 4;
  const uint32_t target = (4 - position) % 4;
  const uint32_t y = registers[(target + 1) % 4];
  const uint32_t mixed = mix(round, y, registers[(target + 2) % 4], registers[(target + 3) % 4]);
  const uint32_t sum = registers[target] + mixed + words[kWord[round][step]] + kSine[round][step];
  registers[target] = y + rotateLeft(sum, kShift[round][position]);
}

#if defined(__OPTIMIZE__) && !defined(__OPTIMIZE_SIZE__)

// Expanded, not looped: the compiler then has constants for all but the words before it orders the sums.
template <uint32_t kRound, uint32_t... kSteps>
void runRound(const uint32_t *words, uint32_t (&registers)[4], std::integer_sequence<uint32_t, kSteps...>) {
  (runStep(kRound, kSteps, words, registers), ...);
}

void runRounds(const uint32_t *words, uint32_t (&registers)[4]) {
  constexpr std::make_integer_sequence<uint32_t, kWordCount> kSteps;
  runRound<0>(words, registers, kSteps);
  runRound<1>(words, registers, kSteps);
  runRound<2>(words, registers, kSteps);
  runRound<3>(words, registers, kSteps);
}

#else

void runRounds(const uint32_t *words, uint32_t (&registers)[4]) {
  for (uint32_t round = 0; round < kRoundCount; ++round) {
    for (uint32_t step = 0; step < kWordCount; ++step) runStep(round, step, words, registers);
  }
}

#endif

// Words behind the data stay as they are.
void takeWords(uint32_t (&words)[kWordCount], const void *data, uint32_t len) {
  const uint32_t used = len < kWordCount * kWordSize ? len : kWordCount * kWordSize;
  const auto *in = static_cast<const uint8_t *>(data);
  for (uint32_t i = 0; i * kWordSize < used; ++i, in += kWordSize) {
    words[i] = uint32_t{in[0]} << 24 | uint32_t{in[1]} << 16 | uint32_t{in[2]} << 8 | in[3];
  }
}

// Gives what is to be added to the state.
void compress(const uint32_t *words, const uint32_t *state, uint32_t *out) {
  uint32_t registers[4] = {state[0], state[1], state[2], state[3]};
  runRounds(words, registers);
  std::memcpy(out, registers, sizeof registers);
}

}  // namespace

void ZuMD5_Init(ZuMD5 *ctx) {
  if (!ctx) return;
  std::memset(ctx->count, 0, sizeof ctx->count);
  std::memcpy(ctx->state, kInitialState, sizeof ctx->state);
}

void ZuMD5_Encode(uint32_t *state, const void *data, uint32_t len) {
  if (!state || !data) return;
  uint32_t words[kWordCount] = {};
  takeWords(words, data, len);
  uint32_t more[4];
  compress(words, state, more);
  for (int i = 0; i < 4; ++i) state[i] += more[i];
}

uint32_t ZuMD5_Hash(const void *data, uint32_t len, uint32_t modulus) {
  if (!data || modulus == 0) return 0;
  uint32_t words[kWordCount] = {};
  takeWords(words, data, len);
  uint32_t more[4];
  compress(words, kInitialState, more);
  return (kInitialSum + more[0] + more[1] + more[2] + more[3]) % modulus;
}
