#include "nira_ipc_base64.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<uint8_t, 256> MakeValues() {
  std::array<uint8_t, 256> values{};
  for (uint8_t value = 0; value < 64; ++value) values[static_cast<unsigned char>(kAlphabet[value])] = value;
  return values;
}

constexpr std::array<uint8_t, 256> kValues = MakeValues();

void EncodeGroup(uint32_t bits, unsigned char* output) {
  output[0] = static_cast<unsigned char>(kAlphabet[bits >> 18]);
  output[1] = static_cast<unsigned char>(kAlphabet[bits >> 12 & 63]);
  output[2] = static_cast<unsigned char>(kAlphabet[bits >> 6 & 63]);
  output[3] = static_cast<unsigned char>(kAlphabet[bits & 63]);
}

uint32_t DecodeGroup(const unsigned char* text) {
  return uint32_t{kValues[text[0]]} << 18 | uint32_t{kValues[text[1]]} << 12 | uint32_t{kValues[text[2]]} << 6 |
         uint32_t{kValues[text[3]]};
}

}  // namespace

void b64_encode(const unsigned char* input, unsigned int length, unsigned char* output, unsigned int* outputLength) {
  if (outputLength == nullptr) return;
  const size_t whole = length / 3;
  const unsigned int tail = length % 3;
  for (size_t group = 0; group < whole; ++group, input += 3, output += 4) {
    EncodeGroup(uint32_t{input[0]} << 16 | uint32_t{input[1]} << 8 | input[2], output);
  }
  if (tail != 0) {
    EncodeGroup(uint32_t{input[0]} << 16 | (tail == 2 ? uint32_t{input[1]} << 8 : 0), output);
    if (tail == 1) output[2] = '=';
    output[3] = '=';
  }
  *outputLength = static_cast<unsigned int>(4 * (whole + (tail != 0 ? 1 : 0)));
}

unsigned int b64_decode(const unsigned char* text, unsigned int length, unsigned char* output,
                        unsigned int* outputLength) {
  if (outputLength == nullptr || length % 4 != 0) return 0;
  const unsigned char* const end = text + length;
  for (const unsigned char* group = text; group != end; group += 4, output += 3) {
    const uint32_t bits = DecodeGroup(group);
    output[0] = static_cast<unsigned char>(bits >> 16);
    if (group[2] != '=') output[1] = static_cast<unsigned char>(bits >> 8 & 255);
    if (group[3] != '=') output[2] = static_cast<unsigned char>(bits & 255);
  }
  *outputLength = length / 4 * 3;
  if (length == 0) return 1;
  if (end[-1] == '=') --*outputLength;
  if (end[-2] == '=') --*outputLength;
  return 1;
}
