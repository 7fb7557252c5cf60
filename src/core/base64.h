// Standard base64 (RFC 4648 alphabet, "=" padding, no line breaks).
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace tervain::base64 {

constexpr std::size_t encodedSize(std::size_t rawBytes) { return (rawBytes + 2) / 3 * 4; }

// Writes encodedSize(size) characters to out. No terminator is written.
void encodeInto(const void* data, std::size_t size, char* out);

// Appends the encoding of the bytes to out.
void appendEncoded(std::string& out, std::string_view bytes);

std::string encode(std::string_view bytes);

// Strict decode: only the standard alphabet, length a multiple of four, padding only at the
// end and only where it belongs, no whitespace. Anything else yields nothing.
std::optional<std::string> decode(std::string_view text);

// As decode(), into out (replacing its contents); false when the text is not valid.
bool decodeInto(std::string_view text, std::string& out);

}  // namespace tervain::base64
