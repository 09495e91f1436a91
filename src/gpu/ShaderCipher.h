#pragma once
// The cipher of encoded shader files. It keeps the shader sources that ship with an application
// from being read or edited casually; it is an obfuscation, not a protection against anyone who
// has this code.
//
// An encoded file is the four bytes "QSE1" followed by the source, each byte XORed with one byte
// of a key stream: a 32-bit xorshift generator (shifts 13, 17, 5) that starts from the key
// 0x51A7E5ED and steps once before each byte, whose low byte is used. The same operation encodes
// and decodes the bytes after the mark. Encoded files carry the name of the source without its
// ".glsl" ending ("filters/common.glsl" becomes "filters/common"); tools/shadercipher encodes a
// folder of sources that way (see docs/SHADERS.md).
//
// Header only, so that the encoding tool needs nothing else of the library. Any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qor::gpu {

inline constexpr std::string_view ShaderCipherMark = "QSE1";
inline constexpr std::uint32_t ShaderCipherKey = 0x51A7E5EDu;

// XORs `bytes` with the key stream, in place.
inline void applyShaderKeyStream(std::string& bytes) {
    std::uint32_t state = ShaderCipherKey;
    for (char& c : bytes) {
        state ^= state << 13;
        state ^= state >> 17;
        state ^= state << 5;
        c = char(static_cast<unsigned char>(c) ^ static_cast<unsigned char>(state & 0xFF));
    }
}

// The encoded form of a shader source.
inline std::string encodeShader(std::string_view source) {
    std::string body(source);
    applyShaderKeyStream(body);
    return std::string(ShaderCipherMark) + body;
}

// The source of an encoded file; nothing when the file does not begin with the mark.
inline std::optional<std::string> decodeShader(std::string_view encoded) {
    if (encoded.substr(0, ShaderCipherMark.size()) != ShaderCipherMark) return std::nullopt;
    std::string body(encoded.substr(ShaderCipherMark.size()));
    applyShaderKeyStream(body);
    return body;
}

}  // namespace qor::gpu
