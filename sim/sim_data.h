// Byte-level encodings of HART data as the simulated device puts them in its replies:
// big-endian integers, IEEE 754 floats, packed ASCII and fixed-width Latin-1 text.
#ifndef VELMORA_SIM_SIM_DATA_H
#define VELMORA_SIM_SIM_DATA_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace velmora::sim {

void PutU8(std::vector<uint8_t> &out, uint8_t value);
void PutU16(std::vector<uint8_t> &out, uint16_t value);
void PutU24(std::vector<uint8_t> &out, uint32_t value);
void PutU32(std::vector<uint8_t> &out, uint32_t value);
void PutFloat(std::vector<uint8_t> &out, float value);
void PutBytes(std::vector<uint8_t> &out, const std::vector<uint8_t> &bytes);

// Readers take a pointer the caller has checked to hold enough bytes.
uint16_t GetU16(const uint8_t *bytes);
uint32_t GetU24(const uint8_t *bytes);
uint32_t GetU32(const uint8_t *bytes);
float GetFloat(const uint8_t *bytes);

// Packed ASCII: four 6-bit characters in three bytes. The text is cut or padded with spaces
// to `chars` characters (a multiple of 4); lower case goes to upper case, and a character
// that packed ASCII cannot hold becomes '?'.
std::vector<uint8_t> PackAscii(std::string_view text, size_t chars);
// Unpacks `count` bytes (a multiple of 3; a tail that is not is ignored).
std::string UnpackAscii(const uint8_t *bytes, size_t count);
// The text as packed ASCII would give it back: upper case, width `chars`, space padded.
std::string PackedForm(std::string_view text, size_t chars);

// Latin-1 text in a fixed field: cut or padded with spaces to `width` bytes.
std::vector<uint8_t> FixedText(std::string_view text, size_t width);

// The text with trailing spaces and NULs removed, for display.
std::string TrimRight(std::string_view text);

}  // namespace velmora::sim

#endif
